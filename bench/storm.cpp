// A storm of changes from one process, as fast as it can make them.
//
//   tidewell-bench-storm prepare FOLDER FILES   the folders that are there before the storm
//   tidewell-bench-storm run FOLDER FILES       the storm: FILES files, a hundred to a folder
//
// Every file is created, written and closed, and every second one unlinked at once. Every second
// folder is made during the storm, two levels deep, and filled immediately. Prints the seconds that
// it took, the events that the kernel has to report of it, and the files that are left.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "bench/Measure.h"

namespace {

constexpr int filesInFolder = 100;

void make(const std::string& folder) {
    if (mkdir(folder.c_str(), 0755) == 0) return;
    std::perror(folder.c_str());
    std::exit(1);
}

std::string outerFolder(const std::string& top, int folder) {
    return top + "/Outer " + std::to_string(folder);
}

void createFile(int directory, const std::string& name) {
    const int file = openat(directory, name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (file < 0 || write(file, "a line of text\n", 15) != 15) {
        std::perror(name.c_str());
        std::exit(1);
    }
    close(file);
}

void run(const std::string& top, int folders) {
    double events = 0;
    double kept = 0;
    const double start = bench::now();
    for (int folder = 0; folder < folders; ++folder) {
        const std::string outer = outerFolder(top, folder);
        if (folder % 2 == 1) {
            make(outer);
            make(outer + "/Inner");
            events += 2;
        }
        const int directory = open((outer + "/Inner").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        for (int file = 0; file < filesInFolder; ++file) {
            const bool isKept = file % 2 == 0;
            const std::string name = (isKept ? "Kept " : "Gone ") + std::to_string(file) + ".txt";
            createFile(directory, name);
            if (!isKept) unlinkat(directory, name.c_str(), 0);
            events += isKept ? 3 : 4;
            kept += isKept ? 1 : 0;
        }
        close(directory);
    }
    const double seconds = bench::now() - start;
    bench::report("seconds", seconds);
    bench::report("events", events);
    bench::report("kept", kept);
}

}  // namespace

int main(int count, char** arguments) {
    const std::string mode = count == 4 ? arguments[1] : "";
    if (mode != "prepare" && mode != "run") {
        std::fputs("usage: tidewell-bench-storm prepare|run FOLDER FILES\n", stderr);
        return 2;
    }
    const std::string top = arguments[2];
    const int folders = std::atoi(arguments[3]) / filesInFolder;
    if (mode == "run") {
        run(top, folders);
        return 0;
    }
    make(top);
    for (int folder = 0; folder < folders; folder += 2) {
        make(outerFolder(top, folder));
        make(outerFolder(top, folder) + "/Inner");
    }
}

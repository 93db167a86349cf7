// Makes the data of the benchmarks: tidewell-bench-make-tree FOLDER FOLDERS ENTRIES
//
// FOLDERS sub-folders (0: none, the entries go into FOLDER itself) of ENTRIES empty files each. A
// folder that was finished before is left alone; a half-made one is completed.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

void fill(const std::filesystem::path& folder, int entries) {
    std::filesystem::create_directories(folder);
    const int directory = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int entry = 0; entry < entries; ++entry) {
        const std::string name = "Document " + std::to_string(entry) + ".txt";
        const int file = openat(directory, name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (file < 0) {
            std::perror(name.c_str());
            std::exit(1);
        }
        close(file);
    }
    close(directory);
}

}  // namespace

int main(int count, char** arguments) {
    if (count != 4) {
        std::fputs("usage: tidewell-bench-make-tree FOLDER FOLDERS ENTRIES\n", stderr);
        return 2;
    }
    const std::filesystem::path top = arguments[1];
    const int folders = std::atoi(arguments[2]);
    const int entries = std::atoi(arguments[3]);
    const std::filesystem::path finished = top.string() + ".finished";
    if (std::filesystem::exists(finished)) return 0;
    if (folders == 0) fill(top, entries);
    for (int folder = 0; folder < folders; ++folder) {
        fill(top / ("Folder " + std::to_string(folder)), entries);
    }
    if (std::FILE* mark = std::fopen(finished.c_str(), "w")) std::fclose(mark);
}

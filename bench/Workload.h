#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "bench/Measure.h"

/// What is done to the files while somebody follows them; the same for the product and the floor.
namespace bench {

constexpr int documentsInFolder = 100;

/// A document of a tree that tidewell-bench-make-tree made with folders of that many documents.
inline std::string documentPath(int number) {
    return "Folder " + std::to_string(number / documentsInFolder) + "/Document " +
           std::to_string(number % documentsInFolder) + ".txt";
}

/// One write to a file that may be missing.
inline void writeTo(const std::string& path) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (file < 0 || write(file, "changed\n", 8) != 8) {
        std::perror(path.c_str());
        std::exit(1);
    }
    close(file);
}

/// Gives every `step`-th file below the folder another date; how many these are.
inline std::size_t touchEvery(std::size_t step, const std::string& folder) {
    std::size_t seen = 0;
    std::size_t touched = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
        if (!entry.is_regular_file() || seen++ % step != 0) continue;
        if (utimensat(AT_FDCWD, entry.path().c_str(), nullptr, 0) == 0) ++touched;
    }
    return touched;
}

struct Storm {
    double seconds = 0;
    double events = 0;  ///< what the kernel has to report of it
    double kept = 0;    ///< files that are there in the end, each called "Kept …"
};

/// Runs the program beside this one that makes a storm, in a process of its own.
inline Storm runStorm(const std::string& folder, int files) {
    const auto program =
        std::filesystem::read_symlink("/proc/self/exe").parent_path() / "tidewell-bench-storm";
    const std::string command = program.string() + " run '" + folder + "' " + std::to_string(files);
    Storm storm;
    std::FILE* output = popen(command.c_str(), "r");
    if (!output || std::fscanf(output, "seconds\t%lf events\t%lf kept\t%lf", &storm.seconds,
                               &storm.events, &storm.kept) != 3) {
        std::fputs("the storm did not run\n", stderr);
        std::exit(1);
    }
    pclose(output);
    return storm;
}

}  // namespace bench

#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>

namespace tests {

/// Bits of what goes wrong in a run.
enum Fault : unsigned {
    faultPauses = 1,        ///< the product does not get to run for a while
    faultOverflow = 2,      ///< the kernel drops the tail of its queue
    faultMerges = 4,        ///< the kernel makes one record of two
    faultGhosts = 8,        ///< the kernel reports names that do not exist
    faultRestarts = 16,     ///< things happen while the product does not run
    faultKills = 32,        ///< the same, and it ended without closing anything
    faultWatchReuse = 64,   ///< the kernel gives a watch's number to the next one
    faultWatchLimit = 128,  ///< most folders cannot be watched
    faultClock = 256,       ///< seconds pass between two calls
    faultStoreLoss = 512,   ///< a restart finds no store
    faultSplits = 1024,     ///< a read gives only some of what is there
    faultLibraries = 2048,  ///< applications come and go, with their documents
    faultOwnVerbs = 4096,   ///< no fault: some of the changes are made through the product
    faultFolders = 8192,    ///< no fault: clients hold single folders too, which move
    faultLinks = 16384,     ///< no fault: most files have several names
    faultFullDisk = 32768,  ///< at times the store cannot be written (D alone)
};

struct RunOptions {
    char mode = 'D';  ///< D: in one thread, by the seed alone; R: with threads in real time
    std::uint64_t seed = 1;
    std::size_t operations = 400;
    std::optional<unsigned> faults = {};             ///< bits; drawn from the seed where not given
    std::optional<std::set<std::size_t>> only = {};  ///< the other operations are passed over
};

struct RunResult {
    std::string difference;  ///< the first thing that was wrong; empty where all was well
    std::string log;         ///< what the actors did
    std::size_t judgedSaves = 0;
};

/// Lets actors loose on a tree and compares what replicas made of it with the disk, at a barrier
/// after every 40 operations.
[[nodiscard]] RunResult converge(const RunOptions& options);

/// The command that runs it again.
[[nodiscard]] std::string commandLine(const RunOptions& options);

/// A failing run with operations left out that it does not need.
[[nodiscard]] RunOptions shrink(RunOptions options);

}  // namespace tests

#pragma once

#include <cstdint>
#include <vector>

#include "platform/files/FileDescriptor.h"
#include "platform/files/FileSystem.h"
#include "platform/foundation/QSDate.h"

namespace platform {

/// Tells whether any of the folders that a walk has been in changed since it was there, that is,
/// whether each still has the inode and change time it had. Once armed the kernel is asked for
/// news, so that an answer costs one call while nothing happens and not one for each folder. One
/// thread at a time.
class VisitedFolders {
  public:
    explicit VisitedFolders(const FileSystem& files) : files_(files) {}

    /// Takes the folder as it is now; to be called before its entries are read.
    void add(const Folder& folder);

    /// Watches what was added so far, and what will be. A folder for which the kernel has no watch
    /// left is looked at anew for each answer.
    void arm();

    [[nodiscard]] bool isUnchanged();

  private:
    struct Visit {
        QSURL url;
        std::uint64_t inode = 0;
        QSDate change;
        bool isWatched = false;
    };

    void watch(Visit& visit, int folder);
    [[nodiscard]] bool isUnchanged(const Visit& visit) const;
    [[nodiscard]] bool hasNews();

    const FileSystem& files_;
    std::vector<Visit> visits_;
    FileDescriptor inotify_;
    bool isArmed_ = false;
};

}  // namespace platform

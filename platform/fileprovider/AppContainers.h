#pragma once

#include <map>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/files/FileSystem.h"
#include "platform/registry/QLBundleProxy.h"
#include "platform/volume/VolumeService.h"

namespace platform {

/// The applications whose documents are part of the tree: presents their data containers and has
/// the "Documents" folder in each followed as a root. Any thread, one change at a time; blocks for
/// the disk.
class AppContainers {
  public:
    /// Both must outlive it.
    AppContainers(FileSystem& files, VolumeService& volume) : files_(files), volume_(volume) {}

    /// The URL under which the container at that native path, which need not exist, would be
    /// presented. EXDEV for one on another device or mount than the storage, EINVAL for one that
    /// holds the storage or lies in it, ENOTDIR for what is no folder.
    [[nodiscard]] Result<QSURL> URLForContainer(std::string_view identifier,
                                                const std::string& path) const;

    /// Lets in exactly these, and out all others, those of the last run too. By the time it
    /// returns, what was added and removed with them is in the volume's history. Yields those that
    /// could not be let in, by identifier; they are not part of the tree, but are looked for again.
    /// Records without a container are passed over.
    std::map<std::string, QSError> show(std::span<const BundleRef> bundles);

    /// Looks for containers that were replaced on disk by others, have come back, or could not be
    /// let in.
    void lookAgain();

  private:
    struct Shown {
        std::string path;  ///< native
        /// The fingerprint that distinguishes the folders there from all others; empty if there is
        /// none.
        std::vector<std::uint64_t> state;
    };

    [[nodiscard]] static std::vector<std::uint64_t> stateOf(const std::string& path);
    [[nodiscard]] Result<void> letIn(const std::string& identifier, const std::string& path);
    void letOut(const std::string& identifier);
    void removeRoot(const QSURL& root);

    FileSystem& files_;
    VolumeService& volume_;

    std::mutex mutex_;
    std::map<std::string, Shown> shown_;  // guarded by mutex_; by identifier
};

}  // namespace platform

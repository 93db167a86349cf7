#pragma once

#include <sys/stat.h>

#include <string>
#include <string_view>
#include <vector>

#include "platform/files/FileDescriptor.h"
#include "platform/foundation/QSError.h"
#include "platform/foundation/QSProgress.h"

namespace platform {

/// Copies of whole trees: contents (shared with the source where the file system can, holes kept),
/// permissions, times and extended attributes; symbolic links as links. Owners are this process's,
/// hard links become files of their own. Blocks for the file systems; one thread.
class TreeCopy {
  public:
    /// What to do with what is neither file, folder nor link, where it is below a folder.
    enum class Special : std::uint8_t { LeftOut, Refused };

    TreeCopy(QSProgress& progress, Special special) : progress_(progress), special_(special) {}

    /// Copies the object `sourceName` in `source` to the new entry `targetName` in `target`; both
    /// directories may be O_PATH, and no link is followed. ENOTSUP for what is refused, which a
    /// source that is neither file, folder nor link always is, EEXIST where the entry exists,
    /// ECANCELED once the progress is cancelled. A failure that is about an object of the source
    /// has its native path. After one, what was made so far is the caller's to remove.
    Result<void> copy(int source, const std::string& sourceName, int target,
                      const std::string& targetName);

    /// Makes what was copied durable, the entry in `target` itself excepted: a few objects by
    /// themselves, since others may have gigabytes to write, many with all of the file system.
    Result<void> sync(int target, const std::string& targetName) const;

  private:
    struct Side {
        int folder;
        const char* name;
    };
    Result<void> copyObject(Side source, Side target, unsigned depth);
    Result<void> copyFile(const FileDescriptor& source, Side target);
    Result<void> copyFolder(FileDescriptor source, Side target, unsigned depth);
    Result<void> copyLink(Side source, Side target);
    Result<void> copyContent(int source, const struct stat& status, int target);
    Result<void> copyRange(int source, int target, std::int64_t begin, std::int64_t end,
                           bool inKernel);

    QSProgress& progress_;
    const Special special_;
    std::vector<char> buffer_;
    bool canClone_ = true;
    bool canCopyInKernel_ = true;
    std::uint64_t objects_ = 0;  ///< files and folders made
};

}  // namespace platform

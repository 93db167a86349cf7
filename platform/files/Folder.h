#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/files/FileSystem.h"

namespace platform {

/// One entry as the directory itself tells it; nothing of it was opened.
struct DirectoryEntry {
    std::string_view name;  ///< valid until the next call on the folder
    std::uint64_t inode = 0;
    ObjectKind kind = ObjectKind::Other;
};

/// An open directory: entries in the order the file system returns them, and attributes of its
/// children by calls relative to its descriptor. One thread at a time.
class Folder {
  public:
    Folder(const FileSystem& files, QSURL url, FileDescriptor fd);

    [[nodiscard]] const QSURL& url() const { return url_; }
    [[nodiscard]] int descriptor() const { return fd_.get(); }
    /// The folder's own object, fetched once.
    [[nodiscard]] Result<FileAttributes> ownAttributes() const;

    /// The next entry, none at the end; "." and ".." never come. The position lives in the open
    /// directory, so going on costs nothing, however far it is.
    [[nodiscard]] Result<std::optional<DirectoryEntry>> next();
    /// Puts the entry last returned back, once; next() returns it again.
    void unread();
    void rewind();

    /// Opens a child directory (no link, same mount).
    [[nodiscard]] Result<std::shared_ptr<Folder>> openChild(std::string_view name) const;

    /// Attributes of the child, on another mount EXDEV. statx, a list of attribute names, the file
    /// handle; values and an access check only where those say that there is something to ask.
    [[nodiscard]] Result<std::shared_ptr<FileAttributes>> childAttributes(
        std::string_view name) const;

    /// The child's inode and generation alone (no attribute names, no access).
    [[nodiscard]] Result<ObjectIdentity> childIdentity(std::string_view name) const;

  private:
    const FileSystem& files_;
    QSURL url_;
    FileDescriptor fd_;
    mutable std::optional<std::uint64_t> inode_;
    mutable std::uint32_t device_ = 0;
    mutable int mountID_ = -1;
    std::vector<char> buffer_;
    std::size_t position_ = 0;
    std::size_t filled_ = 0;
    std::size_t last_ = 0;
};

}  // namespace platform

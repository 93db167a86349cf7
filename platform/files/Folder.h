#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/files/AttributeReader.h"
#include "platform/files/FileSystem.h"

namespace platform {

/// One entry as the directory itself has it; nothing of it was opened.
struct DirectoryEntry {
    std::string_view name;  ///< with a "\0" behind it; valid until the next call on the folder
    std::uint64_t inode = 0;
    ObjectKind kind = ObjectKind::Other;
};

/// An open directory: entries in the order the file system returns them, and attributes of its
/// children by calls relative to its descriptor. One thread at a time.
class Folder {
  public:
    /// Takes an open directory; `fd` may be O_PATH if no entries will be read.
    [[nodiscard]] static Result<std::shared_ptr<Folder>> make(const FileSystem& files, QSURL url,
                                                              FileDescriptor fd);

    [[nodiscard]] const QSURL& url() const { return url_; }
    [[nodiscard]] int descriptor() const { return fd_.get(); }
    [[nodiscard]] std::uint64_t inode() const { return facts_.identity.inode; }
    /// The folder's own object as it is now.
    [[nodiscard]] Result<std::shared_ptr<FileAttributes>> ownAttributes() const;

    /// The next entry, none at the end; "." and ".." never come. The position lives in the open
    /// directory, so going on costs nothing, however far it is.
    [[nodiscard]] Result<std::optional<DirectoryEntry>> next();
    /// Puts the entry last returned back, once; next() returns it again.
    void unread() { position_ = last_; }

    /// Ends the use of the folder early and returns the result of closing it.
    Result<void> close();

    /// Opens a child directory (no link, same mount).
    [[nodiscard]] Result<std::shared_ptr<Folder>> openChild(std::string_view name) const;

    /// Attributes of the child; on another mount or device EXDEV.
    [[nodiscard]] Result<std::shared_ptr<FileAttributes>> childAttributes(
        std::string_view name) const;

    /// One call; ENOENT where there is none, EXDEV on another mount or device.
    [[nodiscard]] Result<ObjectState> childState(std::string_view name) const;
    /// The folder's own.
    [[nodiscard]] Result<ObjectState> ownState() const;
    /// The folder's own inode and generation.
    [[nodiscard]] Result<ObjectIdentity> ownIdentity() const;

    /// The child's inode and generation alone (no attribute names, no access).
    [[nodiscard]] Result<ObjectIdentity> childIdentity(std::string_view name) const;

  private:
    Folder(const FileSystem& files, QSURL url, FileDescriptor fd, FolderFacts facts);

    // Constant after construction.
    const FileSystem& files_;
    QSURL url_;
    FileDescriptor fd_;
    FolderFacts facts_;

    // The reading position: what the kernel gave and how far it was handed on.
    std::vector<char> buffer_;
    std::size_t position_ = 0;
    std::size_t filled_ = 0;
    std::size_t last_ = 0;
};

}  // namespace platform

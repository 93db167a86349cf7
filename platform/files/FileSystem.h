#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <shared_mutex>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/files/AttributeReader.h"
#include "platform/files/FileAttributes.h"
#include "platform/files/FileDescriptor.h"
#include "platform/foundation/QSError.h"
#include "platform/foundation/QSURL.h"

namespace platform {

class Folder;

/// The presented tree and the one resolver beneath it. A URL below a presented root becomes the
/// root's descriptor and a relative path, opened with openat2 beneath the root, through no symbolic
/// link and onto no other mount. Every other URL is native.
///
/// Any thread. Calls block for the file system only.
class FileSystem {
  public:
    /// Opens `storage` (a native path; links in it are followed now and never again). Fails with
    /// ENOTDIR, ENOENT or EACCES as the kernel says.
    [[nodiscard]] static Result<std::unique_ptr<FileSystem>> open(std::string_view storage);

    [[nodiscard]] QSURL storageURL() const;
    /// The storage's own folder on disk as resolved at start, for people.
    [[nodiscard]] const std::string& nativeStoragePath() const { return nativeStorage_; }

    /// Whether the storage's native path still leads to the folder that was opened at start: ENOENT
    /// or ENOTDIR where it is unmounted, was removed or replaced.
    [[nodiscard]] Result<void> checkStorage() const;

    /// Closes the folders of roots that no call has used for that long, so that their file systems
    /// can be unmounted; the next call opens them again. Whether some are still open.
    bool closeIdleRoots(std::chrono::steady_clock::duration idle) const;

    /// Presents an application's data container (a native path, resolved now) and returns its URL,
    /// containerURL(identifier). What is in it beside its library stays native. A second call for
    /// one identifier replaces the first.
    [[nodiscard]] Result<QSURL> addContainer(std::string_view identifier, std::string_view path);
    /// From now on URLs below the container lead nowhere; what is open stays so.
    void removeContainer(std::string_view identifier);

    /// Passes over these folders (native paths; those that exist) as if each were another mount:
    /// nothing in them is part of the tree. Before other threads use this.
    void passOver(std::span<const std::string> folders);
    [[nodiscard]] std::span<const ObjectIdentity> passedOver() const { return passedOver_; }
    /// Those of the folders that lie in the storage, resolved.
    [[nodiscard]] const std::vector<std::string>& passedOverPaths() const {
        return passedOverPaths_;
    }

    /// The native path of any URL, for people and for tools; text only, nothing is checked.
    [[nodiscard]] std::string nativePath(const QSURL& url) const;
    /// The URL for a native absolute path: presented where its folder (its own last component is
    /// not followed) resolves into a presented root, native elsewhere.
    [[nodiscard]] QSURL URLForNativePath(std::string_view path) const;

    /// Opens the object with `flags` (O_CLOEXEC and O_NOFOLLOW are added). With O_PATH a final
    /// symbolic link itself is opened. Opening for reading never blocks on a special file.
    [[nodiscard]] Result<FileDescriptor> openObject(const QSURL& url, int flags) const;

    /// The object opened so that its extended attributes can be written, also where it cannot be
    /// read. EOPNOTSUPP for an object that has none (a link, a special file), ESTALE where the name
    /// has come to mean another object than the one whose attributes the URL keeps.
    [[nodiscard]] Result<FileDescriptor> openForExtendedAttributes(const QSURL& url) const;

    /// The folder, opened for reading entries and for calls relative to it.
    [[nodiscard]] Result<std::shared_ptr<Folder>> openFolder(const QSURL& url) const;

    /// The object's attributes, fetched once a URL (any later call is answered by what the URL
    /// keeps). Missing objects fail with ENOENT.
    [[nodiscard]] Result<std::shared_ptr<const FileAttributes>> attributes(const QSURL& url) const;
    /// The same for each of the URLs. A folder is opened once for those in it that follow one
    /// another, so all of them are looked for where that folder was then.
    [[nodiscard]] std::vector<Result<std::shared_ptr<const FileAttributes>>> attributes(
        std::span<const QSURL> urls) const;
    /// The same, from the disk as it is now; the URL keeps what it kept.
    [[nodiscard]] Result<std::shared_ptr<const FileAttributes>> freshAttributes(
        const QSURL& url) const;

    /// The device that the object is on, folded as attributes have it.
    [[nodiscard]] Result<std::uint32_t> deviceOf(const QSURL& url) const;

    /// Makes the folder with mode 0700, its parents too where the URL lies in a presented root. One
    /// that exists already is no error; anything else of that name is (ENOTDIR).
    [[nodiscard]] Result<void> makeFolder(const QSURL& url) const;

    /// The inode number behind the URL, symbolic links followed to whatever they name.
    [[nodiscard]] Result<std::uint64_t> followedInode(const QSURL& url) const;

    /// One extended attribute under its given name (the "user." namespace is added here), of a
    /// symbolic link itself. None if it is missing, also on links and file systems without any;
    /// a URL that keeps its attributes answers that without asking the disk.
    [[nodiscard]] Result<std::optional<QSData>> extendedAttribute(const QSURL& url,
                                                                  std::string_view name) const;

    [[nodiscard]] const Credentials& credentials() const { return credentials_; }

  private:
    struct Root;
    struct Location {
        std::shared_ptr<const Root> root;  ///< null: the path is native
        std::string path;                  ///< relative to the root, "." for the root itself
        /// The root's folder; null with an errno where that is missing.
        std::shared_ptr<const FileDescriptor> folder = {};
        int error = 0;

        [[nodiscard]] bool isRoot() const { return root && path == "."; }
    };

    FileSystem() = default;
    [[nodiscard]] static Result<std::shared_ptr<const Root>> makeRoot(std::string presented,
                                                                      std::string_view native);
    [[nodiscard]] Location locate(const QSURL& url) const;
    /// The same without the root's folder.
    [[nodiscard]] Location textuallyLocate(const QSURL& url) const;
    [[nodiscard]] static FileDescriptor openAt(const Location& location, int flags);
    /// O_PATH; the root's own, which is open as long as `location` is kept, or else `opened`. -1
    /// with errno on failure.
    [[nodiscard]] static int pathDescriptorAt(const Location& location, FileDescriptor& opened);

    // Constant after start.
    std::string nativeStorage_;
    Credentials credentials_;
    std::vector<ObjectIdentity> passedOver_;
    std::vector<std::string> passedOverPaths_;

    mutable std::shared_mutex mutex_;
    std::vector<std::shared_ptr<const Root>> roots_;  // guarded by mutex_; the storage is first
};

}  // namespace platform

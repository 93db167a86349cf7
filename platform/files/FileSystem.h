#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/files/FileAttributes.h"
#include "platform/files/FileDescriptor.h"
#include "platform/foundation/QSError.h"
#include "platform/foundation/QSURL.h"

namespace platform {

class Folder;

/// The path under which the storage is presented, whatever its folder is called on disk.
inline constexpr std::string_view presentedStoragePath = "/private/var/tidewell/Documents";

/// The presented tree and the one resolver beneath it. A URL below a presented root becomes the
/// root's descriptor and a relative path, opened with openat2 beneath the root, through no symbolic
/// link and onto no other mount. Every other URL is native.
///
/// Any thread. The roots are fixed when the object is made; calls block for the file system only.
class FileSystem {
  public:
    /// Opens `storage` (a native path; links in it are followed now and never again). Fails with
    /// ENOTDIR, ENOENT or EACCES as the kernel says.
    [[nodiscard]] static Result<std::unique_ptr<FileSystem>> open(std::string_view storage);
    ~FileSystem();

    [[nodiscard]] QSURL storageURL() const;
    /// The storage's own folder on disk as resolved at start, for people.
    [[nodiscard]] const std::string& nativeStoragePath() const { return nativeStorage_; }

    /// The native path of any URL, for people and for tools; text only, nothing is checked.
    [[nodiscard]] std::string nativePath(const QSURL& url) const;
    /// The URL for a native absolute path: presented where it lies in the storage (by its text, or
    /// by the folder it resolves to), native elsewhere.
    [[nodiscard]] QSURL URLForNativePath(std::string_view path) const;

    /// Opens the object with `flags` (O_CLOEXEC is added; O_NOFOLLOW too). With O_PATH a final
    /// symbolic link itself is opened. Never blocks on a special file.
    [[nodiscard]] Result<FileDescriptor> open(const QSURL& url, int flags) const;

    /// The folder, opened for reading entries and for calls relative to it.
    [[nodiscard]] Result<std::shared_ptr<Folder>> openFolder(const QSURL& url) const;

    /// The object's attributes, fetched once a URL (any later call is answered by what the URL
    /// keeps). Absent objects fail with ENOENT.
    [[nodiscard]] Result<std::shared_ptr<const FileAttributes>> attributes(const QSURL& url) const;

    /// One extended attribute under its given name (the "user." namespace is ours to add), of a
    /// symbolic link itself. ENODATA means absent; so do links and file systems without any.
    [[nodiscard]] Result<QSData> extendedAttribute(const QSURL& url, std::string_view name) const;

    /// The names whose values are fetched together with a listed object's attributes.
    void setPrefetchedAttributeNames(std::vector<std::string> names);
    [[nodiscard]] std::span<const std::string> prefetchedAttributeNames() const;

  private:
    friend class Folder;
    struct Credentials;
    FileSystem();
    /// The descriptor and relative path for `url`; AT_FDCWD and the path itself for a native one.
    [[nodiscard]] std::pair<int, std::string> locate(const QSURL& url) const;
    [[nodiscard]] bool isPresented(const QSURL& url) const;

    // Constant after start.
    std::string nativeStorage_;
    FileDescriptor storage_;
    std::unique_ptr<Credentials> credentials_;
    std::vector<std::string> prefetched_;
};

}  // namespace platform

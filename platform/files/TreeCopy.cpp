#include "platform/files/TreeCopy.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <limits>
#include <vector>

#include "platform/files/AttributeReader.h"
#include "platform/files/DirectoryStream.h"
#include "platform/files/ExtendedAttributes.h"
#include "platform/files/SystemCalls.h"
#include "platform/foundation/QSData.h"

namespace platform {

namespace {

constexpr unsigned deepestTree = 2048;  // a path cannot be longer
constexpr std::uint64_t syncedByThemselves = 32;
constexpr std::size_t bufferSize = 1 << 20;
constexpr std::int64_t rangeAtOnce = 16 << 20;  // between two looks at the progress

Result<void> failure(int code) {
    return std::unexpected(errorFromErrno(code));
}

/// The same with the native path of what it is about.
Result<void> failureAt(int folder, const char* name, int code) {
    std::array<char, PATH_MAX> place;
    const auto size = readlink(descriptorPath(folder, "").c_str(), place.data(), place.size());
    const std::string path(place.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    return std::unexpected(errorFromErrno(code, path + "/" + name));
}

/// Attributes that go with a copy: users' own and access lists.
bool isCopied(std::string_view name) {
    // What belongs to the one folder and would be wrong of another.
    if (name == storedAttributeName(folderWitnessAttribute)) return false;
    return name.starts_with("user.") || name.starts_with("system.posix_acl_");
}

/// What a file system cannot or may not take is left out; a failure to take it is one.
Result<void> copyAttribute(int source, int target, const char* name) {
    QSData value(256);
    ssize_t size = fgetxattr(source, name, value.data(), value.size());
    if (size < 0 && errno == ERANGE) {
        value.resize(XATTR_SIZE_MAX);
        size = fgetxattr(source, name, value.data(), value.size());
    }
    if (size < 0) return {};  // removed since, or not for us
    if (fsetxattr(target, name, value.data(), static_cast<std::size_t>(size), 0) == 0) return {};
    if (errno == ENOTSUP || errno == EPERM || errno == EACCES) return {};
    return failure(errno);
}

Result<void> copyAttributes(int source, int target) {
    std::array<char, 1024> small;
    std::vector<char> large;
    const char* names = small.data();
    auto size = flistxattr(source, small.data(), small.size());
    if (size < 0 && errno == ERANGE) {
        large.resize(XATTR_LIST_MAX);
        size = flistxattr(source, large.data(), large.size());
        names = large.data();
    }
    for (const char* at = names; at < names + size; at += std::strlen(at) + 1) {
        if (!isCopied(at)) continue;
        if (auto copied = copyAttribute(source, target, at); !copied) return copied;
    }
    return {};
}

/// Attributes, then what they might change, then the times, which everything else changes.
Result<void> copyMetadata(int source, const struct stat& status, int target) {
    if (auto copied = copyAttributes(source, target); !copied) return copied;
    if (fchmod(target, status.st_mode & (S_IRWXU | S_IRWXG | S_IRWXO)) != 0) return failure(errno);
    const std::array times{status.st_atim, status.st_mtim};
    if (futimens(target, times.data()) != 0) return failure(errno);
    return {};
}

}  // namespace

Result<void> TreeCopy::copy(int source, const std::string& sourceName, int target,
                            const std::string& targetName) {
    return copyObject({source, sourceName.c_str()}, {target, targetName.c_str()}, 0);
}

Result<void> TreeCopy::copyObject(Side source, Side target, unsigned depth) {
    if (progress_.isCancelled()) return failure(ECANCELED);
    if (depth > deepestTree) return failure(ENAMETOOLONG);
    struct stat status {};
    if (fstatat(source.folder, source.name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return failureAt(source.folder, source.name, errno);
    }
    if (S_ISLNK(status.st_mode)) return copyLink(source, target);
    if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) {
        const bool isRefused = depth == 0 || special_ == Special::Refused;
        return isRefused ? failureAt(source.folder, source.name, ENOTSUP) : Result<void>();
    }
    FileDescriptor object(openat(source.folder, source.name,
                                 O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!object) return failureAt(source.folder, source.name, errno);
    Result<void> copied;
    if (S_ISDIR(status.st_mode)) {
        copied = copyFolder(std::move(object), target, depth);
    } else {
        copied = copyFile(object, target);
    }
    if (copied) progress_.addItem();
    return copied;
}

Result<void> TreeCopy::copyLink(Side source, Side target) {
    std::array<char, PATH_MAX> text;
    const auto size = readlinkat(source.folder, source.name, text.data(), text.size() - 1);
    if (size < 0) return failureAt(source.folder, source.name, errno);
    text[static_cast<std::size_t>(size)] = '\0';
    if (symlinkat(text.data(), target.folder, target.name) != 0) return failure(errno);
    struct stat status {};
    if (fstatat(source.folder, source.name, &status, AT_SYMLINK_NOFOLLOW) == 0) {
        const std::array times{status.st_atim, status.st_mtim};
        if (utimensat(target.folder, target.name, times.data(), AT_SYMLINK_NOFOLLOW) != 0) {
            return failure(errno);
        }
    }
    progress_.addItem();
    return {};
}

Result<void> TreeCopy::copyFile(const FileDescriptor& source, Side target) {
    struct stat status {};
    if (fstat(source.get(), &status) != 0) return failure(errno);
    // Another object took the name since it was looked at.
    if (!S_ISREG(status.st_mode)) return failure(ESTALE);
    FileDescriptor file(openat(target.folder, target.name,
                               O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file) return failure(errno);
    if (auto copied = copyContent(source.get(), status, file.get()); !copied) return copied;
    if (auto copied = copyMetadata(source.get(), status, file.get()); !copied) return copied;
    ++objects_;
    return {};
}

Result<void> TreeCopy::copyFolder(FileDescriptor source, Side target, unsigned depth) {
    struct stat status {};
    if (fstat(source.get(), &status) != 0) return failure(errno);
    if (!S_ISDIR(status.st_mode)) return failure(ESTALE);
    if (mkdirat(target.folder, target.name, 0700) != 0) return failure(errno);
    const FileDescriptor folder(
        openat(target.folder, target.name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder) return failure(errno);
    ++objects_;
    const auto entries = directoryStream(source.get());
    if (!entries) return failure(errno);
    for (;;) {
        errno = 0;
        const auto* entry = readdir(entries.get());
        if (!entry) break;
        const std::string_view name = entry->d_name;
        if (name == "." || name == "..") continue;
        auto copied =
            copyObject({source.get(), entry->d_name}, {folder.get(), entry->d_name}, depth + 1);
        if (!copied) return copied;
    }
    if (errno != 0) return failure(errno);
    return copyMetadata(source.get(), status, folder.get());
}

Result<void> TreeCopy::copyContent(int source, const struct stat& status, int target) {
    const auto end = status.st_size;
    // Some file systems that make up their contents report no sizes.
    if (end == 0) return copyRange(source, target, 0, std::numeric_limits<off_t>::max(), false);
    if (canClone_) {
        if (ioctl(target, FICLONE, source) == 0) {
            progress_.addBytes(static_cast<std::uint64_t>(end));
            return {};
        }
        if (errno == ENOSPC || errno == EDQUOT || errno == EIO) return failure(errno);
        canClone_ = false;
    }
    constexpr off_t blockSize = 512;
    if (status.st_blocks >= (end + blockSize - 1) / blockSize) {
        return copyRange(source, target, 0, end, true);
    }
    // Data by data; what lies between is a hole and stays one.
    for (off_t at = 0; at < end;) {
        const auto data = lseek(source, at, SEEK_DATA);
        if (data < 0 && errno == ENXIO) break;  // nothing but a hole is left
        const auto begin = data < 0 ? at : data;
        const auto hole = data < 0 ? end : std::max(lseek(source, begin, SEEK_HOLE), begin);
        const auto upTo = hole == begin ? end : std::min<off_t>(hole, end);
        if (begin >= end) break;
        if (auto copied = copyRange(source, target, begin, upTo, true); !copied) return copied;
        at = upTo;
    }
    if (ftruncate(target, end) != 0) return failure(errno);
    return {};
}

Result<void> TreeCopy::copyRange(int source, int target, std::int64_t begin, std::int64_t end,
                                 bool inKernel) {
    for (off_t at = begin; at < end;) {
        if (progress_.isCancelled()) return failure(ECANCELED);
        const auto wanted = static_cast<std::size_t>(std::min<off_t>(end - at, rangeAtOnce));
        ssize_t count = -1;
        if (inKernel && canCopyInKernel_) {
            off_t from = at;
            off_t to = at;
            count = copy_file_range(source, &from, target, &to, wanted, 0);
            if (count < 0) {
                if (errno == EINTR) continue;
                if (errno == ENOSPC || errno == EDQUOT || errno == EIO) return failure(errno);
                canCopyInKernel_ = false;
            }
        }
        // Some file systems answer 0 before the end of the file: only a read finds the end.
        if (count <= 0) {
            buffer_.resize(bufferSize);
            count = pread(source, buffer_.data(), std::min(wanted, buffer_.size()), at);
            if (count < 0 && errno == EINTR) continue;
            if (count > 0)
                count = pwrite(target, buffer_.data(), static_cast<std::size_t>(count), at);
            if (count < 0) return failure(errno);
        }
        if (count == 0) break;  // it became shorter
        progress_.addBytes(static_cast<std::uint64_t>(count));
        at += count;
    }
    return {};
}

Result<void> TreeCopy::sync(int target, const std::string& targetName) const {
    if (progress_.isCancelled()) return failure(ECANCELED);
    if (objects_ > syncedByThemselves) {
        const FileDescriptor folder(openat(target, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        return folder && syncfs(folder.get()) == 0 ? Result<void>() : failure(errno);
    }
    const FileDescriptor object(
        openat(target, targetName.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!object && errno == ELOOP) return {};  // a link lives in its folder
    if (!object) return failure(errno);
    struct stat status {};
    if (fstat(object.get(), &status) != 0) return failure(errno);
    if (S_ISDIR(status.st_mode)) {
        const auto entries = directoryStream(object.get());
        if (!entries) return failure(errno);
        while (const auto* entry = readdir(entries.get())) {
            const std::string name = entry->d_name;
            if (name == "." || name == "..") continue;
            if (auto synced = sync(object.get(), name); !synced) return synced;
        }
    }
    return fsync(object.get()) == 0 ? Result<void>() : failure(errno);
}

}  // namespace platform

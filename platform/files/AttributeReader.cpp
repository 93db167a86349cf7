#include "platform/files/AttributeReader.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "platform/files/SystemCalls.h"

namespace platform {

namespace {

constexpr long xfsMagic = 0x58465342;
constexpr std::uint32_t overflowID = 65534;  // an owner that this user namespace cannot name

QSDate dateOf(const statx_timestamp& time) {
    return {time.tv_sec, time.tv_nsec};
}

unsigned emptyPath(const char* name) {
    return name[0] == '\0' ? AT_EMPTY_PATH : 0u;
}

/// The permission bits' answer for `bit` (4 read, 2 write) as the kernel would give it.
bool permits(const struct statx& status, const Credentials& credentials, unsigned bit) {
    if (credentials.overridesPermissions) return true;
    if (status.stx_uid == credentials.user) return (status.stx_mode & (bit << 6)) != 0;
    if (std::ranges::binary_search(credentials.groups, status.stx_gid)) {
        return (status.stx_mode & (bit << 3)) != 0;
    }
    return (status.stx_mode & bit) != 0;
}

void readAccess(int directory, const char* name, const struct statx& status, bool asksKernel,
                const Credentials& credentials, FileAttributes& into) {
    if (!asksKernel) {
        into.isReadable = permits(status, credentials, 4);
        into.isWritable = permits(status, credentials, 2);
        return;
    }
    const int flags = AT_EACCESS | AT_SYMLINK_NOFOLLOW | static_cast<int>(emptyPath(name));
    into.isReadable = faccessat(directory, name, R_OK, flags) == 0;
    into.isWritable = faccessat(directory, name, W_OK, flags) == 0;
}

/// The object's attribute names; a list longer than the usual is fetched in full.
std::string attributeNames(int directory, const char* name) {
    std::array<char, 512> buffer;
    const auto size = listAttributes(directory, name, buffer.data(), buffer.size());
    if (size >= 0) return {buffer.data(), static_cast<std::size_t>(size)};
    if (errno != ERANGE) return {};
    std::string names(XATTR_LIST_MAX, '\0');
    const auto whole = listAttributes(directory, name, names.data(), names.size());
    names.resize(static_cast<std::size_t>(std::max<std::ptrdiff_t>(whole, 0)));
    return names;
}

std::uint32_t deviceOf(const struct statx& status) {
    return foldedDevice(status.stx_dev_major, status.stx_dev_minor);
}

std::uint64_t birthTimeFingerprint(const struct statx& status) {
    if ((status.stx_mask & STATX_BTIME) == 0) return 1;
    return (static_cast<std::uint64_t>(status.stx_btime.tv_sec) * 1'000'000'000 +
            status.stx_btime.tv_nsec) |
           1;
}

bool hasLastingHandles(const struct statfs& system) {
    constexpr std::array<unsigned long, 5> others = {
        0x65735546,   // FUSE: of the node that the daemon made for the look-up
        0x4D44,       // vfat, and
        0x2011BAB0,   // exfat: inode numbers are made up in memory
        0xFF534D42,   // CIFS, and
        0xFE534D42};  // SMB: of the connection
    const auto type = static_cast<unsigned long>(system.f_type) & 0xFFFFFFFF;
    return std::ranges::find(others, type) == others.end();
}

/// 0 where there is no handle that lasts; errno then is EOPNOTSUPP, or says that the object is
/// missing.
std::uint64_t lastingFingerprint(int directory, const char* name, const FolderFacts* folder) {
    if (folder ? folder->handlesLast : fileHandlesLast(directory)) {
        return handleFingerprint(directory, name);
    }
    errno = EOPNOTSUPP;
    return 0;
}

bool isPassedOver(int directory, const char* name, const struct statx& status,
                  const FolderFacts& folder) {
    return std::ranges::any_of(folder.passedOver, [&](const ObjectIdentity& object) {
        if (object.inode != status.stx_ino) return false;
        const auto handle = lastingFingerprint(directory, name, &folder);
        return object.generation == (handle != 0 ? handle : birthTimeFingerprint(status));
    });
}

/// EXDEV for an object of another mount or device than `folder`, where that is given, and for one
/// that it passes over.
Result<struct statx> statusOf(int directory, const char* name, const FolderFacts* folder) {
    struct statx status {};
    const int flags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | static_cast<int>(emptyPath(name));
    if (statx(directory, name, flags, STATX_BASIC_STATS | STATX_BTIME | STATX_MNT_ID, &status) !=
        0) {
        return std::unexpected(errorFromErrno(errno));
    }
    if (folder && (deviceOf(status) != folder->device || status.stx_mnt_id != folder->mount)) {
        return std::unexpected(errorFromErrno(EXDEV));
    }
    if (folder && isPassedOver(directory, name, status, *folder)) {
        return std::unexpected(errorFromErrno(EXDEV));
    }
    return status;
}

}  // namespace

Credentials Credentials::ofThisProcess() {
    Credentials result;
    result.user = geteuid();
    const int count = getgroups(0, nullptr);
    result.groups.resize(static_cast<std::size_t>(std::max(count, 0)));
    const int filled = getgroups(count, result.groups.data());
    result.groups.resize(static_cast<std::size_t>(std::max(filled, 0)));
    result.groups.push_back(getegid());
    std::ranges::sort(result.groups);

    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, 2> data{};
    if (syscall(SYS_capget, &header, data.data()) == 0) {
        result.overridesPermissions = (data[0].effective & (1u << CAP_DAC_OVERRIDE)) != 0;
    }
    return result;
}

std::uint32_t foldedDevice(std::uint32_t major, std::uint32_t minor) {
    const std::uint32_t folded = (major << 20) | (minor & 0xFFFFF);
    return folded == 0 ? ~0u : folded;
}

bool fileHandlesLast(int fd) {
    struct statfs system {};
    return fstatfs(fd, &system) != 0 || hasLastingHandles(system);
}

Result<FolderFacts> readFolderFacts(int folder, std::span<const ObjectIdentity> passedOver) {
    struct statx status {};
    if (statx(folder, "", AT_EMPTY_PATH, STATX_INO | STATX_MNT_ID, &status) != 0) {
        return std::unexpected(errorFromErrno(errno));
    }
    struct statfs system {};
    if (fstatfs(folder, &system) != 0) return std::unexpected(errorFromErrno(errno));
    const auto type = static_cast<long>(system.f_type);
    const bool known = type == EXT4_SUPER_MAGIC || type == xfsMagic || type == BTRFS_SUPER_MAGIC ||
                       type == TMPFS_MAGIC;
    const bool readOnly = (static_cast<unsigned long>(system.f_flags) & ST_RDONLY) != 0;
    const bool lasts = hasLastingHandles(system);
    return FolderFacts{{status.stx_ino, lasts ? handleFingerprint(folder, "") : 0},
                       foldedDevice(status.stx_dev_major, status.stx_dev_minor),
                       status.stx_mnt_id,
                       !known || readOnly,
                       known,
                       lasts,
                       passedOver};
}

Result<std::shared_ptr<FileAttributes>> readAttributes(int directory, const char* name,
                                                       const FolderFacts* folder,
                                                       const Credentials& credentials) {
    const auto found = statusOf(directory, name, folder);
    if (!found) return std::unexpected(found.error());
    const struct statx& status = *found;

    auto attributes = std::make_shared<FileAttributes>();
    attributes->identity.inode = status.stx_ino;
    if (folder) attributes->parent = folder->identity;
    attributes->device = deviceOf(status);
    attributes->mode = status.stx_mode;
    attributes->linkCount = status.stx_nlink;
    attributes->size = status.stx_size;
    attributes->modification = dateOf(status.stx_mtime);
    attributes->change = dateOf(status.stx_ctime);
    if ((status.stx_mask & STATX_BTIME) != 0) attributes->creation = dateOf(status.stx_btime);

    const auto kind = attributes->kind();
    if (kind == ObjectKind::RegularFile || kind == ObjectKind::Directory) {
        attributes->attributeNames = attributeNames(directory, name);
    }

    attributes->identity.generation = lastingFingerprint(directory, name, folder);
    if (attributes->identity.generation == 0) {
        // It went after the first call. Another identity would be made up.
        if (errno == ENOENT || errno == ESTALE) return std::unexpected(errorFromErrno(ENOENT));
        attributes->identity.generation = birthTimeFingerprint(status);
        attributes->identityIsWeak = true;
    }

    const bool asksKernel = !folder || folder->asksKernelForAccess ||
                            attributes->hasAttribute("system.posix_acl_access") ||
                            (status.stx_attributes & STATX_ATTR_IMMUTABLE) != 0 ||
                            status.stx_uid == overflowID || status.stx_gid == overflowID;
    readAccess(directory, name, status, asksKernel, credentials, *attributes);
    return attributes;
}

Result<ObjectIdentity> readIdentity(int directory, const char* name, const FolderFacts* folder,
                                    const Credentials& credentials) {
    const auto fingerprint = lastingFingerprint(directory, name, folder);
    if (fingerprint == 0) {
        auto attributes = readAttributes(directory, name, folder, credentials);
        if (!attributes) return std::unexpected(attributes.error());
        return (*attributes)->identity;
    }
    struct stat status {};
    const int flags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | AT_EMPTY_PATH;
    if (fstatat(directory, name, &status, flags) != 0) {
        return std::unexpected(errorFromErrno(errno));
    }
    return ObjectIdentity{status.st_ino, fingerprint};
}

Result<ObjectState> readState(int directory, const char* name, const FolderFacts* folder) {
    const auto found = statusOf(directory, name, folder);
    if (!found) return std::unexpected(found.error());
    const struct statx& status = *found;
    FileAttributes facts;
    facts.identity.inode = status.stx_ino;
    facts.mode = status.stx_mode;
    facts.size = status.stx_size;
    facts.modification = dateOf(status.stx_mtime);
    facts.change = dateOf(status.stx_ctime);
    if ((status.stx_mask & STATX_BTIME) != 0) facts.creation = dateOf(status.stx_btime);
    return ObjectState{status.stx_ino, facts.kind(), stampOf(facts), facts.change,
                       status.stx_nlink};
}

}  // namespace platform

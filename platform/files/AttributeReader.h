#pragma once

#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/files/FileAttributes.h"
#include "platform/foundation/QSError.h"

namespace platform {

/// Whose access is meant: this process's effective user, read once.
struct Credentials {
    std::uint32_t user = 0;
    std::vector<std::uint32_t> groups;  ///< sorted; the effective group is among them
    bool overridesPermissions = false;

    [[nodiscard]] static Credentials ofThisProcess();
};

/// What is the same for all children of one folder.
struct FolderFacts {
    ObjectIdentity identity;  ///< generation 0 where there are no file handles
    std::uint32_t device = 0;
    std::uint64_t mount = 0;
    bool asksKernelForAccess = false;  ///< read-only, or a file system whose rules are its own
    bool usesSystemClock = false;      ///< for the times of files; false where that is not known
    bool handlesLast = true;           ///< as fileHandlesLast says
    /// Objects that are answered as if they were on another mount.
    std::span<const ObjectIdentity> passedOver = {};
};

/// Whether a file handle of the file system that `fd` is on means the same object as long as the
/// object lives. Some make another one up whenever the kernel has dropped the object from memory.
[[nodiscard]] bool fileHandlesLast(int fd);

/// The facts of an open folder (O_PATH will do).
[[nodiscard]] Result<FolderFacts> readFolderFacts(int folder,
                                                  std::span<const ObjectIdentity> passedOver = {});

/// Reads one object in as few calls as its kind needs: statx; the list of attribute names, since
/// most objects have none; the file handle; and an access check only where the permission bits do
/// not decide. `name` empty means the descriptor's own object. Fails with EXDEV for an object of
/// another mount or device than `folder` (where given), and for one that `folder` passes over.
[[nodiscard]] Result<std::shared_ptr<FileAttributes>> readAttributes(
    int directory, const char* name, const FolderFacts* folder, const Credentials& credentials);

/// The object's inode and generation alone. `name` as above.
[[nodiscard]] Result<ObjectIdentity> readIdentity(int directory, const char* name,
                                                  const FolderFacts* folder,
                                                  const Credentials& credentials);

/// The little that a comparison needs, in one call. `name` and `folder` as above.
[[nodiscard]] Result<ObjectState> readState(int directory, const char* name,
                                            const FolderFacts* folder);

/// 32 bits of a device number, never 0.
[[nodiscard]] std::uint32_t foldedDevice(std::uint32_t major, std::uint32_t minor);

/// The name under which an attribute is kept on disk.
[[nodiscard]] inline std::string storedAttributeName(std::string_view name) {
    return "user." + std::string(name);
}

}  // namespace platform

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/QSDate.h"
#include "platform/foundation/QSURL.h"

namespace platform {

/// Distinguishes two objects that had the same inode number at different times: a fingerprint of
/// the kernel's file handle or, where the file system has none, of the birth time.
struct ObjectIdentity {
    std::uint64_t inode = 0;
    std::uint64_t generation = 0;  ///< never 0 for a real object

    friend bool operator==(const ObjectIdentity&, const ObjectIdentity&) = default;
};

enum class ObjectKind : std::uint8_t { RegularFile, Directory, SymbolicLink, Other };

/// One object as it was when its attributes were fetched, without following a final symbolic link.
struct FileAttributes final : QSURLAttachment {
    ObjectIdentity identity;
    ObjectIdentity parent;     ///< the folder it was found in; zeroes for a root
    std::uint32_t device = 0;  ///< never 0
    std::uint32_t mode = 0;    ///< type and permission bits as in st_mode
    std::uint32_t linkCount = 0;
    std::uint64_t size = 0;  ///< bytes
    QSDate modification;
    QSDate change;
    std::optional<QSDate> creation;  ///< missing where the file system keeps no birth time
    bool identityIsWeak = false;     ///< the generation is only a birth time
    bool isReadable = false;         ///< for this process's effective user
    bool isWritable = false;

    /// The names of the extended attributes as on disk, "\0" behind each; empty for most objects.
    std::string attributeNames;

    [[nodiscard]] ObjectKind kind() const;
    [[nodiscard]] bool hasAttribute(std::string_view storedName) const;
    [[nodiscard]] bool isDirectory() const { return kind() == ObjectKind::Directory; }
};

/// Shows that a name now means another object, or in another state, than when it was looked at
/// last.
struct ObjectState {
    std::uint64_t inode = 0;
    ObjectKind kind = ObjectKind::Other;
    /// Of times, size and mode, never 0: another one after any change that moves the change time.
    std::uint64_t stamp = 0;
    QSDate change;
    std::uint32_t linkCount = 0;
};

/// The stamp of the state in the attributes.
[[nodiscard]] std::uint64_t stampOf(const FileAttributes& object);

}  // namespace platform

#pragma once

#include <string>

#include "platform/files/FileAttributes.h"

namespace platform {

/// What tells one file system from another when it is mounted again, maybe under another device
/// number. Never a device number.
struct VolumeFingerprint {
    std::string uuid;     ///< of the file system, lower-case hexadecimal; empty where none is told
    ObjectIdentity root;  ///< the storage folder itself

    /// REQUIRES: `fd` is the storage folder, open for reading.
    [[nodiscard]] static VolumeFingerprint of(int fd, const ObjectIdentity& root);

    /// The UUIDs decide where both have one; else the storage folder must be the same object.
    [[nodiscard]] bool isSameVolume(const VolumeFingerprint& other) const;
};

}  // namespace platform

#pragma once

#include <string>

#include "platform/files/FileAttributes.h"

namespace platform {

/// Distinguishes one file system from another when it is mounted again, maybe under another device
/// number. Never a device number.
struct VolumeFingerprint {
    std::string uuid;     ///< of the file system, lower-case hexadecimal; empty where it has none
    ObjectIdentity root;  ///< the storage folder itself

    /// `fd` is that folder. It is opened for reading to ask for the UUID, which is empty where the
    /// folder cannot be read.
    [[nodiscard]] static VolumeFingerprint of(int fd, const ObjectIdentity& root);

    /// The UUIDs decide where both have one; else the storage folder must be the same object.
    [[nodiscard]] bool isSameVolume(const VolumeFingerprint& other) const;
    /// One folder of one file system.
    [[nodiscard]] bool isSameFolder(const VolumeFingerprint& other) const;
};

}  // namespace platform

#include "platform/files/VolumeFingerprint.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <fstream>
#include <memory>
#include <sstream>

#include "platform/files/FileDescriptor.h"
#include "platform/files/SystemCalls.h"

namespace platform {

namespace {

/// As the kernel's <linux/fs.h> has it since 6.9.
struct KernelUUID {
    std::uint8_t size;
    std::array<std::uint8_t, 16> bytes;
};
constexpr auto getFileSystemUUID = _IOR(0x15, 0, KernelUUID);

std::string normalised(std::string_view text) {
    std::string result;
    for (const char c : text) {
        if (c != '-') result += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return result;
}

std::string uuidFromKernel(int fd) {
    KernelUUID uuid{};
    if (ioctl(fd, getFileSystemUUID, &uuid) != 0 || uuid.size == 0) return {};
    constexpr std::string_view digits = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < std::min<std::size_t>(uuid.size, uuid.bytes.size()); ++i) {
        text += digits[uuid.bytes[i] >> 4];
        text += digits[uuid.bytes[i] & 0x0F];
    }
    // Images made without one all carry zeroes.
    return text.find_first_not_of('0') == std::string::npos ? std::string() : text;
}

/// The device node that the mount of `fd` was made from; empty where it is no device.
std::string mountSource(int fd) {
    struct statx status {};
    if (statx(fd, "", AT_EMPTY_PATH, STATX_MNT_ID, &status) != 0) return {};
    std::ifstream mounts("/proc/self/mountinfo");
    for (std::string line; std::getline(mounts, line);) {
        std::istringstream fields(line);
        std::uint64_t id = 0;
        if (!(fields >> id) || id != status.stx_mnt_id) continue;
        // Optional fields end with "-"; then come the type and the source.
        std::string field;
        while (fields >> field && field != "-") continue;
        std::string source;
        fields >> field >> source;
        return source.starts_with('/') ? source : std::string();
    }
    return {};
}

/// What udev read from the superblock.
std::string uuidFromUdev(int fd) {
    const std::string source = mountSource(fd);
    struct stat wanted {};
    if (source.empty() || stat(source.c_str(), &wanted) != 0) return {};
    const std::string folder = "/dev/disk/by-uuid/";
    const std::unique_ptr<DIR, int (*)(DIR*)> links(opendir(folder.c_str()), closedir);
    if (!links) return {};
    while (const dirent* entry = readdir(links.get())) {
        struct stat status {};
        if (stat((folder + entry->d_name).c_str(), &status) == 0 && S_ISBLK(status.st_mode) &&
            status.st_rdev == wanted.st_rdev) {
            return normalised(entry->d_name);
        }
    }
    return {};
}

}  // namespace

VolumeFingerprint VolumeFingerprint::of(int fd, const ObjectIdentity& root) {
    const FileDescriptor readable(
        ::open(descriptorPath(fd, "").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    VolumeFingerprint fingerprint{uuidFromKernel(readable.get()), root};
    if (fingerprint.uuid.empty()) fingerprint.uuid = uuidFromUdev(fd);
    return fingerprint;
}

bool VolumeFingerprint::isSameVolume(const VolumeFingerprint& other) const {
    if (!uuid.empty() && !other.uuid.empty()) return uuid == other.uuid;
    return root == other.root;
}

bool VolumeFingerprint::isSameFolder(const VolumeFingerprint& other) const {
    return root == other.root && isSameVolume(other);
}

}  // namespace platform

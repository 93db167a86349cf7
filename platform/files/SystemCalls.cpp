#include "platform/files/SystemCalls.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <string_view>

#include "platform/files/FileDescriptor.h"

namespace platform {

namespace {

// Kernels from 6.13 take a folder and a name; the numbers are the same on every architecture.
constexpr long getxattratNumber = 464;
constexpr long listxattratNumber = 465;

struct XattrArguments {
    std::uint64_t value = 0;
    std::uint32_t size = 0;
    std::uint32_t flags = 0;
};

std::atomic<bool> hasXattrAt = true;

/// Runs the call relative to a folder; where the kernel has none, the one by path. The descriptor's
/// own object always goes by path, since it may be open without the right to read.
template <typename Relative, typename ByPath>
std::ptrdiff_t relativeOrByPath(int directory, const char* name, Relative relative, ByPath byPath) {
    const bool isOwn = name[0] == '\0';
    if (!isOwn && hasXattrAt.load(std::memory_order_relaxed)) {
        const auto result = relative();
        if (result >= 0 || errno != ENOSYS) return result;
        hasXattrAt = false;
    }
    // A name below the descriptor must not be followed; the descriptor's own link has to be.
    return byPath(descriptorPath(directory, name), isOwn);
}

int openShortPath(int directory, const char* path, int flags, std::uint64_t resolve) {
    open_how how{};
    how.flags = static_cast<unsigned>(flags | O_CLOEXEC | O_NOFOLLOW);
    how.resolve = resolve;
    // EAGAIN: a rename elsewhere raced with the walk beneath the root; the kernel asks to try
    // again.
    for (int attempt = 0;; ++attempt) {
        const auto fd = static_cast<int>(syscall(SYS_openat2, directory, path, &how, sizeof how));
        if (fd >= 0 || errno != EAGAIN || attempt == 100) return fd;
    }
}

}  // namespace

int openBeneath(int directory, const char* path, int flags, std::uint64_t resolve) {
    FileDescriptor folder;
    std::string_view rest(path);
    while (rest.size() >= PATH_MAX) {
        const auto slash = rest.rfind('/', PATH_MAX - 1);
        if (slash == std::string_view::npos) {
            errno = ENAMETOOLONG;
            return -1;
        }
        const std::string part(rest.substr(0, slash));
        folder = FileDescriptor(openShortPath(folder ? folder.get() : directory, part.c_str(),
                                              O_PATH | O_DIRECTORY, resolve));
        if (!folder) return -1;
        rest.remove_prefix(slash + 1);
    }
    return openShortPath(folder ? folder.get() : directory, rest.data(), flags, resolve);
}

std::string descriptorPath(int directory, const char* name) {
    std::string path = "/proc/self/fd/" + std::to_string(directory);
    if (name[0] != '\0') {
        path += '/';
        path += name;
    }
    return path;
}

std::ptrdiff_t listAttributes(int directory, const char* name, char* buffer, std::size_t size) {
    return relativeOrByPath(
        directory, name,
        [&] {
            return syscall(listxattratNumber, directory, name, AT_SYMLINK_NOFOLLOW, buffer, size);
        },
        [&](const std::string& path, bool follow) {
            return follow ? ::listxattr(path.c_str(), buffer, size)
                          : ::llistxattr(path.c_str(), buffer, size);
        });
}

std::ptrdiff_t getAttribute(int directory, const char* name, const char* attribute, void* buffer,
                            std::size_t size) {
    return relativeOrByPath(
        directory, name,
        [&] {
            XattrArguments arguments{reinterpret_cast<std::uintptr_t>(buffer),
                                     static_cast<std::uint32_t>(size), 0};
            return syscall(getxattratNumber, directory, name, AT_SYMLINK_NOFOLLOW, attribute,
                           &arguments, sizeof arguments);
        },
        [&](const std::string& path, bool follow) {
            return follow ? ::getxattr(path.c_str(), attribute, buffer, size)
                          : ::lgetxattr(path.c_str(), attribute, buffer, size);
        });
}

std::uint64_t handleFingerprint(int directory, const char* name) {
    alignas(file_handle) std::array<unsigned char, sizeof(file_handle) + MAX_HANDLE_SZ> storage;
    auto* handle = reinterpret_cast<file_handle*>(storage.data());
    handle->handle_bytes = MAX_HANDLE_SZ;
    int mountID = 0;
    const int flags = name[0] == '\0' ? AT_EMPTY_PATH : 0;
    if (name_to_handle_at(directory, name, handle, &mountID, flags) != 0) return 0;

    // FNV-1a over the type and the bytes. Stored: never change it.
    std::uint64_t hash = 0xCBF2'9CE4'8422'2325;
    const auto add = [&](unsigned char byte) { hash = (hash ^ byte) * 0x0000'0100'0000'01B3; };
    for (unsigned shift = 0; shift < 32; shift += 8) {
        add(static_cast<unsigned char>(static_cast<unsigned>(handle->handle_type) >> shift));
    }
    for (unsigned i = 0; i < handle->handle_bytes; ++i) {
        add(storage[sizeof(file_handle) + i]);
    }
    return hash == 0 ? 1 : hash;
}

}  // namespace platform

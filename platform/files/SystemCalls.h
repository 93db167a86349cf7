#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace platform {

// Calls that the C library of the day does not wrap. Each sets errno as the kernel does.

/// openat2 with O_CLOEXEC and O_NOFOLLOW; `resolve` as RESOLVE_… of <linux/openat2.h>. The path may
/// be longer than the PATH_MAX bytes that the kernel takes at once.
int openBeneath(int directory, const char* path, int flags, std::uint64_t resolve);

/// The names of a child's extended attributes, "\0" behind each. Never follows a link. An empty
/// `name` means the descriptor's own object.
std::ptrdiff_t listAttributes(int directory, const char* name, char* buffer, std::size_t size);

/// One extended attribute of a child ("user." and the rest already in `attribute`). A null buffer
/// asks for the size.
std::ptrdiff_t getAttribute(int directory, const char* name, const char* attribute, void* buffer,
                            std::size_t size);

/// "/proc/self/fd/N" or, with a name, a path below it: the form for calls that take no descriptor.
std::string descriptorPath(int directory, const char* name);

/// A fingerprint of the kernel's file handle of a child (or, `name` empty, of the descriptor's own
/// object); 0 with errno where there is none. Never follows a link.
std::uint64_t handleFingerprint(int directory, const char* name);

}  // namespace platform

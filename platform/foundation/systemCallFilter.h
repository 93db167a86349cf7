#pragma once

#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>

#include <cstddef>
#include <cstdint>
#include <span>

namespace platform {

// The instructions that filters of system calls are made of. A filter is a list of them; the kernel
// runs it for each call, from the first one to an answer.

#if defined(__x86_64__)
inline constexpr std::uint32_t ownArchitecture = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
inline constexpr std::uint32_t ownArchitecture = AUDIT_ARCH_AARCH64;
#else
#error "name the architecture of the filter"
#endif

/// Loads a field of seccomp_data.
constexpr sock_filter load(std::size_t offset) {
    return {BPF_LD | BPF_W | BPF_ABS, 0, 0, static_cast<std::uint32_t>(offset)};
}
/// Loads the lower half of an argument, counted from 0.
constexpr sock_filter loadArgument(std::size_t number) {
    return load(offsetof(seccomp_data, args) + number * sizeof(std::uint64_t));
}
constexpr sock_filter answer(std::uint32_t value) {
    return {BPF_RET | BPF_K, 0, 0, value};
}
/// The call fails with that errno.
constexpr std::uint32_t refuse(int code) {
    return SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(code);
}
/// Goes on with the next instruction where it holds, else past `others` of them.
constexpr sock_filter ifEqual(std::uint32_t value, std::uint8_t others = 1) {
    return {BPF_JMP | BPF_JEQ | BPF_K, 0, others, value};
}
/// Passes over the next instruction where it holds.
constexpr sock_filter unlessEqual(std::uint32_t value) {
    return {BPF_JMP | BPF_JEQ | BPF_K, 1, 0, value};
}
constexpr sock_filter ifBitsOf(std::uint32_t bits) {
    return {BPF_JMP | BPF_JSET | BPF_K, 0, 1, bits};
}
constexpr sock_filter unlessBitsOf(std::uint32_t bits) {
    return {BPF_JMP | BPF_JSET | BPF_K, 1, 0, bits};
}

/// Runs the filter for each call of this thread and of those that it starts, for good. False where
/// the kernel does not take it. REQUIRES: the process has no new privileges.
[[nodiscard]] inline bool setSystemCallFilter(std::span<sock_filter> filter) {
    const sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
    return prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

}  // namespace platform

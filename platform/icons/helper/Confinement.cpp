#include "platform/icons/helper/Confinement.h"

#include <fcntl.h>
#include <linux/landlock.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>

#include "platform/foundation/systemCallFilter.h"

namespace platform {

namespace {

bool setLimits() {
    struct Limit {
        decltype(RLIMIT_AS) resource;
        rlim_t value;
    };
    constexpr std::array limits{Limit{RLIMIT_AS, 512 << 20}, Limit{RLIMIT_CPU, 3},
                                Limit{RLIMIT_FSIZE, 0},      Limit{RLIMIT_NOFILE, 32},
                                Limit{RLIMIT_CORE, 0},       Limit{RLIMIT_STACK, 8 << 20}};
    for (const auto& [resource, value] : limits) {
        const rlimit limit{value, value};
        if (setrlimit(resource, &limit) != 0) return false;
    }
    return true;
}

/// No file but fonts and other shared data, and these for reading alone. Nothing where the kernel
/// has no Landlock; then the limits and the filter of system calls have to do.
void closeFileSystem() {
    const landlock_ruleset_attr handled{.handled_access_fs =
                                            (LANDLOCK_ACCESS_FS_MAKE_SYM << 1) - 1};
    const auto ruleset = static_cast<int>(
        syscall(SYS_landlock_create_ruleset, &handled, sizeof handled.handled_access_fs, 0));
    if (ruleset < 0) return;
    for (const auto* readable : {"/usr/share", "/etc/fonts", "/var/cache/fontconfig"}) {
        landlock_path_beneath_attr rule{
            .allowed_access = LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_READ_DIR,
            .parent_fd = open(readable, O_PATH | O_CLOEXEC)};
        if (rule.parent_fd < 0) continue;
        (void)syscall(SYS_landlock_add_rule, ruleset, LANDLOCK_RULE_PATH_BENEATH, &rule, 0);
        close(rule.parent_fd);
    }
    (void)syscall(SYS_landlock_restrict_self, ruleset, 0);
    close(ruleset);
}

/// Refuses sockets, programs, processes and the means to reach into others. Threads stay allowed,
/// since drawing uses some.
bool filterSystemCalls() {
    constexpr auto number = offsetof(seccomp_data, nr);
    std::array filter {
        load(offsetof(seccomp_data, arch)),
            // Another architecture's numbers mean other calls.
            sock_filter{BPF_JMP | BPF_JEQ | BPF_K, 0, 2, ownArchitecture}, load(number),
            sock_filter{BPF_JMP | BPF_JGE | BPF_K, 0, 1, 0x4000'0000},  // another ABI, or no number
            answer(SECCOMP_RET_KILL_PROCESS), ifEqual(SYS_clone3),
            answer(refuse(ENOSYS)),  // then clone is used, whose flags can be read
            ifEqual(SYS_socket), answer(refuse(EACCES)), ifEqual(SYS_socketpair),
            answer(refuse(EACCES)), ifEqual(SYS_io_uring_setup), answer(refuse(EACCES)),
            ifEqual(SYS_execve), answer(refuse(EACCES)), ifEqual(SYS_execveat),
            answer(refuse(EACCES)), ifEqual(SYS_kill), answer(refuse(EACCES)), ifEqual(SYS_ptrace),
            answer(refuse(EACCES)), ifEqual(SYS_process_vm_readv), answer(refuse(EACCES)),
            ifEqual(SYS_process_vm_writev), answer(refuse(EACCES)), ifEqual(SYS_unlinkat),
            answer(refuse(EACCES)),
#if defined(__x86_64__)
            ifEqual(SYS_fork), answer(refuse(EACCES)), ifEqual(SYS_vfork), answer(refuse(EACCES)),
#endif
            sock_filter{BPF_JMP | BPF_JEQ | BPF_K, 0, 3, SYS_clone}, loadArgument(0),
            unlessBitsOf(CLONE_THREAD), answer(refuse(EACCES)), answer(SECCOMP_RET_ALLOW),
    };
    return setSystemCallFilter(filter);
}

}  // namespace

bool confineThisProcess() {
    // Whoever asked for the icon may go at any moment.
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    (void)close_range(3, ~0U, 0);
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || !setLimits()) return false;
    closeFileSystem();
    return filterSystemCalls();
}

}  // namespace platform

#include "extension/Confinement.h"

#include <sched.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/foundation/systemCallFilter.h"

namespace tidewell {

namespace {

constexpr std::array refused{
    // Other processes.
    SYS_ptrace, SYS_process_vm_readv, SYS_process_vm_writev, SYS_pidfd_getfd, SYS_kcmp,
    // What the file system looks like, and to whom.
    SYS_mount, SYS_umount2, SYS_pivot_root, SYS_chroot, SYS_setns, SYS_unshare, SYS_open_tree,
    SYS_move_mount, SYS_fsopen, SYS_fsmount, SYS_fsconfig, SYS_fspick, SYS_mount_setattr,
    // The kernel and the machine.
    SYS_bpf, SYS_perf_event_open, SYS_userfaultfd, SYS_init_module, SYS_finit_module,
    SYS_delete_module, SYS_kexec_load, SYS_reboot, SYS_swapon, SYS_swapoff, SYS_acct,
    SYS_settimeofday, SYS_clock_settime, SYS_sethostname, SYS_setdomainname,
    // Keys, and calls past this filter.
    SYS_add_key, SYS_request_key, SYS_keyctl, SYS_io_uring_setup, SYS_io_uring_enter,
    SYS_io_uring_register};

constexpr std::uint32_t namespaceFlags = CLONE_NEWNS | CLONE_NEWCGROUP | CLONE_NEWUTS |
                                         CLONE_NEWIPC | CLONE_NEWUSER | CLONE_NEWPID | CLONE_NEWNET;

std::vector<sock_filter> makeFilter() {
    using namespace platform;
    constexpr auto number = offsetof(seccomp_data, nr);
    const auto no = answer(refuse(EPERM));
    std::vector<sock_filter> filter{
        load(offsetof(seccomp_data, arch)),
        // Another architecture's numbers mean other calls.
        unlessEqual(ownArchitecture), answer(SECCOMP_RET_KILL_PROCESS), load(number),
        sock_filter{BPF_JMP | BPF_JGE | BPF_K, 0, 1, 0x4000'0000},  // another ABI, or no number
        answer(SECCOMP_RET_KILL_PROCESS)};
    for (const auto call : refused) {
        filter.insert(filter.end(), {ifEqual(static_cast<std::uint32_t>(call)), no});
    }
    const auto add = [&](std::initializer_list<sock_filter> more) {
        filter.insert(filter.end(), more);
    };
    add({ifEqual(SYS_clone3),
         answer(refuse(ENOSYS))});  // then clone is used, whose flags can be read
    const auto allow = answer(SECCOMP_RET_ALLOW);
    add({ifEqual(SYS_clone, 4), loadArgument(0), ifBitsOf(namespaceFlags), no, allow});
    // To the journal.
    add({ifEqual(SYS_socket, 4), loadArgument(0), unlessEqual(AF_UNIX), no, allow});
    add({ifEqual(SYS_ioctl, 5), loadArgument(1), ifEqual(TIOCSTI), no, ifEqual(TIOCLINUX), no});
    add({allow});
    return filter;
}

}  // namespace

bool confineThisProcess() {
    const rlimit none{0, 0};
    (void)setrlimit(RLIMIT_CORE, &none);
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return false;
    auto filter = makeFilter();
    return platform::setSystemCallFilter(filter);
}

}  // namespace tidewell

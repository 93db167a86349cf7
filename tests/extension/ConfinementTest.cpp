#include "extension/Confinement.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/bpf.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <thread>

namespace {

/// Makes each call in turn; the first that is not refused is named, and ends the process with 1.
int attempts() {
    char byte = 0;
    iovec own{&byte, 1};
    bpf_attr program{};
    int terminal = 0;
    const auto is = [](const char* what, long result, int code = EPERM) {
        if (result == -1 && errno == code) return true;
        std::fprintf(stderr, "%s: %ld, errno %d\n", what, result, errno);
        return false;
    };
    const bool areRefused =
        is("inet", socket(AF_INET, SOCK_STREAM, 0)) &&
        is("inet6", socket(AF_INET6, SOCK_DGRAM, 0)) &&
        is("netlink", socket(AF_NETLINK, SOCK_RAW, 0)) &&
        is("packet", socket(AF_PACKET, SOCK_RAW, 0)) &&
        is("ptrace", ptrace(PTRACE_ATTACH, getppid(), nullptr, nullptr)) &&
        is("read memory", process_vm_readv(getppid(), &own, 1, &own, 1, 0)) &&
        is("write memory", process_vm_writev(getppid(), &own, 1, &own, 1, 0)) &&
        is("mount", mount("none", "/mnt", "tmpfs", 0, nullptr)) &&
        is("umount", umount2("/", MNT_DETACH)) && is("chroot", chroot("/")) &&
        is("unshare", unshare(CLONE_NEWUSER)) && is("setns", setns(0, CLONE_NEWNET)) &&
        is("clone", syscall(SYS_clone, CLONE_NEWUSER | SIGCHLD, nullptr, nullptr, nullptr, 0)) &&
        is("clone3", syscall(SYS_clone3, nullptr, 0), ENOSYS) &&
        is("bpf", syscall(SYS_bpf, BPF_PROG_LOAD, &program, sizeof program)) &&
        is("perf", syscall(SYS_perf_event_open, nullptr, 0, -1, -1, 0)) &&
        is("userfaultfd", syscall(SYS_userfaultfd, 0)) &&
        is("keyctl", syscall(SYS_keyctl, 0, 0, 0)) &&
        is("io_uring", syscall(SYS_io_uring_setup, 1, nullptr)) &&
        is("module", syscall(SYS_finit_module, -1, "", 0)) &&
        is("terminal", ioctl(terminal, TIOCSTI, &byte));
    // What it needs is there.
    bool hasRun = false;
    std::thread([&] { hasRun = true; }).join();
    const pid_t child = fork();
    if (child == 0) _exit(7);
    int status = 0;
    const bool hasForked = waitpid(child, &status, 0) == child && WEXITSTATUS(status) == 7;
    rlimit core{};
    getrlimit(RLIMIT_CORE, &core);
    const bool isUsable = socket(AF_UNIX, SOCK_DGRAM, 0) >= 0 && hasRun && hasForked &&
                          core.rlim_max == 0 && prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0) == 1;
    if (!isUsable) std::fprintf(stderr, "something that it needs is missing\n");
    return areRefused && isUsable ? 0 : 1;
}

TEST(ConfinementTest, WhatAnExtensionNeverDoesIsRefused) {
    EXPECT_EXIT(_exit(tidewell::confineThisProcess() ? attempts() : 2), testing::ExitedWithCode(0),
                "^$");
}

}  // namespace

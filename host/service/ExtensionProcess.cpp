#include "host/service/ExtensionProcess.h"

#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace host {

using platform::Result;

namespace {

constexpr int connectionInChild = 3;
constexpr const char* name = "tidewell-extension";

/// Signals as a program expects them that is started by a shell.
int prepare(posix_spawnattr_t& attributes) {
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    if (const int code = posix_spawnattr_setsigmask(&attributes, &none); code != 0) return code;
    if (const int code = posix_spawnattr_setsigdefault(&attributes, &all); code != 0) return code;
    if (const int code = posix_spawnattr_setpgroup(&attributes, 0); code != 0) return code;
    return posix_spawnattr_setflags(
        &attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
}

}  // namespace

std::string ExtensionProcess::program() {
    namespace fs = std::filesystem;
    std::error_code failure;
    const auto folder = fs::read_symlink("/proc/self/exe", failure).parent_path();
    const auto beside = folder / name;
    if (fs::exists(beside, failure)) return beside.string();
    return (folder.parent_path() / "libexec/tidewell" / name).string();
}

Result<std::unique_ptr<ExtensionProcess>> ExtensionProcess::spawn(
    const std::string& program, const platform::FileDescriptor& connection) {
    const auto failed = [&](int code) {
        return std::unexpected(platform::errorFromErrno(code, program));
    };
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    if (const int code = posix_spawn_file_actions_init(&actions); code != 0) return failed(code);
    const std::unique_ptr<posix_spawn_file_actions_t, int (*)(posix_spawn_file_actions_t*)>
        actionsOwner(&actions, posix_spawn_file_actions_destroy);
    if (const int code = posix_spawnattr_init(&attributes); code != 0) return failed(code);
    const std::unique_ptr<posix_spawnattr_t, int (*)(posix_spawnattr_t*)> attributesOwner(
        &attributes, posix_spawnattr_destroy);
    if (const int code = prepare(attributes); code != 0) return failed(code);
    // Everything else is closed on exec.
    if (const int code =
            posix_spawn_file_actions_adddup2(&actions, connection.get(), connectionInChild);
        code != 0) {
        return failed(code);
    }
    auto argument = std::string(name);
    std::array<char*, 2> arguments{argument.data(), nullptr};
    pid_t number = 0;
    if (const int code =
            posix_spawn(&number, program.c_str(), &actions, &attributes, arguments.data(), environ);
        code != 0) {
        return failed(code);
    }
    // Not reaped before, so the number is its own.
    platform::FileDescriptor descriptor(static_cast<int>(syscall(SYS_pidfd_open, number, 0)));
    if (!descriptor) {
        const int code = errno;
        ::kill(number, SIGKILL);
        (void)waitpid(number, nullptr, 0);
        return failed(code);
    }
    return std::unique_ptr<ExtensionProcess>(new ExtensionProcess(number, std::move(descriptor)));
}

ExtensionProcess::~ExtensionProcess() {
    constexpr std::chrono::milliseconds forEver(-1);
    if (ending_) return;
    kill();
    (void)wait(forEver);
}

void ExtensionProcess::kill() {
    (void)syscall(SYS_pidfd_send_signal, descriptor_.get(), SIGKILL, nullptr, 0);
}

std::optional<std::string> ExtensionProcess::wait(std::chrono::milliseconds deadline) {
    if (ending_) return ending_;
    pollfd polled{descriptor_.get(), POLLIN, 0};
    int ready = 0;
    do {
        ready = poll(&polled, 1, static_cast<int>(deadline.count()));
    } while (ready < 0 && errno == EINTR);
    siginfo_t info{};
    if (ready != 1 || waitid(P_PIDFD, static_cast<id_t>(descriptor_.get()), &info, WEXITED) != 0) {
        return std::nullopt;
    }
    if (info.si_code == CLD_EXITED) {
        ending_ = "it exited with code " + std::to_string(info.si_status);
    } else {
        const char* abbreviation = sigabbrev_np(info.si_status);
        ending_ = "it was ended by SIG" + std::string(abbreviation ? abbreviation : "?");
    }
    return ending_;
}

}  // namespace host

#include "platform/icons/IconDecoder.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "platform/files/FileDescriptor.h"
#include "platform/icons/IconFormat.h"

namespace platform {

namespace {

using Clock = std::chrono::steady_clock;

Result<FileDescriptor> inMemory(QSDataView bytes) {
    FileDescriptor fd(memfd_create("icon", MFD_CLOEXEC));
    if (!fd) return std::unexpected(errorFromErrno(errno));
    while (!bytes.empty()) {
        const auto count = write(fd.get(), bytes.data(), bytes.size());
        if (count < 0) return std::unexpected(errorFromErrno(errno));
        bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
    if (lseek(fd.get(), 0, SEEK_SET) != 0) return std::unexpected(errorFromErrno(errno));
    return fd;
}

/// A process that is killed and reaped when this goes.
class Child {
  public:
    explicit Child(pid_t pid) : pid_(pid) {}
    ~Child() {
        kill(pid_, SIGKILL);
        while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

  private:
    pid_t pid_;
};

/// Starts the program with these for its standard input and output, its standard error closed to
/// us, and nothing else of this process: no environment, no blocked or ignored signals.
Result<pid_t> start(const std::string& program, const std::string& argument, int input,
                    int output) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes, &signals);
    sigfillset(&signals);
    posix_spawnattr_setsigdefault(&attributes, &signals);

    std::string name = "tidewell-icon";
    std::string words = argument;
    char* arguments[] = {name.data(), words.data(), nullptr};
    char* environment[] = {nullptr};
    pid_t pid = 0;
    const int failure =
        posix_spawn(&pid, program.c_str(), &actions, &attributes, arguments, environment);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (failure != 0) return std::unexpected(errorFromErrno(failure, program));
    return pid;
}

/// Reads exactly as much as `to` holds; EBADMSG where there is less, ETIMEDOUT at the end of time.
Result<void> readWhole(int fd, std::span<std::byte> to, Clock::time_point end) {
    while (!to.empty()) {
        const auto rest = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
        if (rest <= 0) return std::unexpected(errorFromErrno(ETIMEDOUT));
        pollfd polled{.fd = fd, .events = POLLIN, .revents = 0};
        const int ready = poll(&polled, 1, static_cast<int>(std::min<long>(rest, 60'000)));
        if (ready < 0 && errno != EINTR) return std::unexpected(errorFromErrno(errno));
        if (ready <= 0) continue;
        const auto count = read(fd, to.data(), to.size());
        if (count < 0) return std::unexpected(errorFromErrno(errno));
        if (count == 0) return std::unexpected(errorFromErrno(EBADMSG));
        to = to.subspan(static_cast<std::size_t>(count));
    }
    return {};
}

}  // namespace

Result<QIImage> IconDecoder::decode(QSDataView file, int side) const {
    const auto end = Clock::now() + deadline_;
    const auto input = inMemory(file);
    if (!input) return std::unexpected(input.error());
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return std::unexpected(errorFromErrno(errno));
    const FileDescriptor output(ends[0]);
    FileDescriptor childsOutput(ends[1]);
    const auto pid = start(program_, std::to_string(side), input->get(), childsOutput.get());
    if (!pid) return std::unexpected(pid.error());
    const Child child(*pid);
    childsOutput.reset();

    // The program is not believed: what it writes counts only where it is just what was asked for.
    IconBitmapHeader header;
    auto read = readWhole(output.get(), std::as_writable_bytes(std::span(&header, 1)), end);
    if (!read) return std::unexpected(read.error());
    if (header.magic != iconBitmapMagic || header.side != static_cast<std::uint32_t>(side)) {
        return std::unexpected(errorFromErrno(EBADMSG));
    }
    QIImage image{side, {}};
    image.pixels.resize(static_cast<std::size_t>(side) * static_cast<std::size_t>(side));
    read = readWhole(output.get(), std::as_writable_bytes(std::span(image.pixels)), end);
    if (!read) return std::unexpected(read.error());
    return image;
}

}  // namespace platform

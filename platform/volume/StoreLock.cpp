#include "platform/volume/StoreLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <utility>

namespace platform {

namespace {

struct Holder {
    std::string description;
    std::string socket;  ///< empty: it serves nobody
};

/// A line each: the number of the process, its socket.
Holder holderOf(int fd) {
    char text[PATH_MAX + 24];
    const ssize_t size = pread(fd, text, sizeof text, 0);
    const std::string_view note(text, size > 0 ? static_cast<std::size_t>(size) : 0);
    const auto line = note.find('\n');
    const auto pid = note.substr(0, line);
    const bool isNumber =
        !pid.empty() && pid.find_first_not_of("0123456789") == std::string_view::npos;
    if (!isNumber) return {"in use by another process", {}};
    auto rest = line == std::string_view::npos ? std::string_view() : note.substr(line + 1);
    const auto end = rest.find('\n');
    // One that is still being written has no end.
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(0, end);
    return {"in use by PID " + std::string(pid), std::string(rest)};
}

}  // namespace

Result<void> makePrivateFolder(const std::string& path) {
    for (std::size_t end = 0; end != std::string::npos;) {
        end = path.find('/', end + 1);
        const std::string part = path.substr(0, end);
        if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) {
            return std::unexpected(errorFromErrno(errno, part));
        }
    }
    return {};
}

Result<StoreLock> StoreLock::acquire(std::string path) {
    StoreLock lock(std::move(path));
    lock.file_.reset(::open(lock.path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    const int fd = lock.file_.get();
    if (fd < 0) {
        // The database is what is locked; who cannot make the note goes on without.
        if (errno == EROFS || errno == EACCES || errno == ENOSPC || errno == EDQUOT) return lock;
        return std::unexpected(errorFromErrno(errno, lock.path_));
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK) return std::unexpected(errorFromErrno(errno, lock.path_));
        return std::unexpected(lock.inUse());
    }
    return lock;
}

QSError StoreLock::inUse() const {
    QSError error = errorFromErrno(EBUSY, path_);
    auto holder = holderOf(file_.get());
    error.userInfo.emplace(QSDescriptionErrorKey, std::move(holder.description));
    if (holder.socket.starts_with('/')) {
        error.userInfo.emplace(serviceSocketErrorKey, std::move(holder.socket));
    }
    return error;
}

void StoreLock::noteHolder() const {
    write(std::to_string(getpid()) + "\n");
}

void StoreLock::noteService(pid_t process, std::string_view socket) const {
    write(std::to_string(process) + "\n" + std::string(socket) + "\n");
}

/// A failure (a full disk) is no failure of the lock.
void StoreLock::write(const std::string& note) const {
    if (ftruncate(file_.get(), 0) == 0) (void)!pwrite(file_.get(), note.data(), note.size(), 0);
}

}  // namespace platform

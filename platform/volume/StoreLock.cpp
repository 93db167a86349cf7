#include "platform/volume/StoreLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

namespace platform {

namespace {

std::string holderOf(int fd) {
    char text[24];
    const ssize_t size = pread(fd, text, sizeof text, 0);
    std::string_view pid(text, size > 0 ? static_cast<std::size_t>(size) : 0);
    pid = pid.substr(0, pid.find('\n'));
    const bool isNumber =
        !pid.empty() && pid.find_first_not_of("0123456789") == std::string_view::npos;
    return isNumber ? "in use by PID " + std::string(pid) : "in use by another process";
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
    error.userInfo.emplace(QSDescriptionErrorKey, holderOf(file_.get()));
    return error;
}

void StoreLock::noteHolder() const {
    // A failure to write it (a full disk) is no failure of the lock.
    const std::string pid = std::to_string(getpid()) + "\n";
    if (ftruncate(file_.get(), 0) == 0) (void)!pwrite(file_.get(), pid.data(), pid.size(), 0);
}

}  // namespace platform

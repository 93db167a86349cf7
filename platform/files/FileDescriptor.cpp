#include "platform/files/FileDescriptor.h"

#include <cerrno>

namespace platform {

void FileDescriptor::reset(int fd) {
    if (fd_ >= 0) {
        const int saved = errno;
        ::close(fd_);
        errno = saved;
    }
    fd_ = fd;
}

int FileDescriptor::close() {
    return fd_ >= 0 ? ::close(std::exchange(fd_, -1)) : 0;
}

}  // namespace platform

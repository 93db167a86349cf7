#include "platform/files/DataFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/files/FileDescriptor.h"

namespace platform {

namespace {

std::unexpected<QSError> failure(const std::string& path) {
    return std::unexpected(errorFromErrno(errno, path));
}

Result<void> makeFoldersOf(const std::string& path) {
    for (auto slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        const auto folder = path.substr(0, slash);
        if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) return failure(folder);
    }
    return {};
}

Result<void> writeAll(int fd, QSDataView data, const std::string& path) {
    while (!data.empty()) {
        const auto written = write(fd, data.data(), data.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return failure(path);
        data = data.subspan(static_cast<std::size_t>(written));
    }
    return {};
}

Result<void> syncFolderOf(const std::string& path) {
    const auto folder = path.substr(0, path.rfind('/') + 1);
    const FileDescriptor fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd || fsync(fd.get()) != 0) return failure(folder);
    return {};
}

Result<void> writeSynced(QSDataView data, const std::string& path) {
    const FileDescriptor fd(
        open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!fd) return failure(path);
    if (auto written = writeAll(fd.get(), data, path); !written) return written;
    if (fsync(fd.get()) != 0) return failure(path);
    return {};
}

}  // namespace

Result<QSData> dataWithContentsOfFile(const std::string& path, std::size_t limit) {
    const FileDescriptor fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (!fd || fstat(fd.get(), &status) != 0) return failure(path);
    if (!S_ISREG(status.st_mode)) return std::unexpected(errorFromErrno(EINVAL, path));
    QSData data;
    // One byte more than it says: a file that grows while it is read is not cut off unnoticed.
    for (std::size_t size = 0;;) {
        if (size > limit) return std::unexpected(errorFromErrno(EFBIG, path));
        data.resize(size + std::max<std::size_t>(static_cast<std::size_t>(status.st_size), 4096));
        const auto count = read(fd.get(), data.data() + size, data.size() - size);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return failure(path);
        size += static_cast<std::size_t>(count);
        if (count > 0) continue;
        data.resize(size);
        return data;
    }
}

Result<void> writeDataAtomically(QSDataView data, const std::string& path) {
    if (auto made = makeFoldersOf(path); !made) return made;
    const auto temporary = path + ".new";
    auto written = writeSynced(data, temporary);
    if (written && rename(temporary.c_str(), path.c_str()) != 0) written = failure(path);
    if (!written) {
        (void)unlink(temporary.c_str());
        return written;
    }
    return syncFolderOf(path);
}

}  // namespace platform

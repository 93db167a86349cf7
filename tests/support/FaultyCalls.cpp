// Preloaded into the command by tests/support/sweep.sh. Counts the calls that change what is below
// the folders of FAULT_BELOW, in all threads together; the one with the number FAULT_AT kills the
// process, or fails with the errno FAULT_ERROR, and is named in the file FAULT_LOG. After ENOSPC no
// block is free. With FAULT_APART no rename leads from one descriptor to another (EXDEV).
#include <dlfcn.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <linux/fs.h>
#include <signal.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

namespace {

std::string setting(const char* name) {
    const char* value = std::getenv(name);
    return value ? value : "";
}

bool isBelow(int folder, const char* path) {
    std::string whole = path ? path : "";
    if (!whole.starts_with('/')) {
        char place[4096];
        const auto link = "/proc/self/fd/" + std::to_string(folder);
        const auto size = readlink(link.c_str(), place, sizeof place);
        if (size < 0) return false;
        whole = std::string(place, static_cast<std::size_t>(size)) + "/" + whole;
    }
    std::istringstream folders(setting("FAULT_BELOW"));
    for (std::string below; std::getline(folders, below, ':');) {
        if (fnmatch((below + "/*").c_str(), whole.c_str(), 0) == 0) return true;
    }
    return false;
}

constexpr int nowhere = -1;

std::atomic<bool> isFull = false;

/// The descriptor that "/proc/self/fd/N" is of.
int descriptorOf(const char* path) {
    int fd = nowhere;
    return std::sscanf(path, "/proc/self/fd/%d", &fd) == 1 ? fd : nowhere;
}

bool fails(const char* call, int folder, const char* path = nullptr, int from = nowhere) {
    static std::atomic<int> count = 0;
    if (from != nowhere && from != folder && !setting("FAULT_APART").empty()) {
        errno = EXDEV;
        return true;
    }
    const int before = errno;
    const bool isDue = isBelow(folder, path) && std::to_string(++count) == setting("FAULT_AT");
    errno = before;
    if (!isDue) return false;
    if (FILE* log = std::fopen(setting("FAULT_LOG").c_str(), "we")) {
        std::fprintf(log, "%s %s\n", call, path ? path : "");
        std::fclose(log);
    }
    const auto error = setting("FAULT_ERROR");
    if (error.empty()) kill(getpid(), SIGKILL);
    errno = std::atoi(error.c_str());
    isFull = errno == ENOSPC;
    return true;
}

}  // namespace

// Declared under a name of their own, since the headers give these calls other attributes.
#define FAULTY(Result, call, parameters, arguments, ...)                                          \
    extern "C" Result faulty_##call parameters asm(#call);                                        \
    Result faulty_##call parameters {                                                             \
        static const auto real = reinterpret_cast<Result(*) parameters>(dlsym(RTLD_NEXT, #call)); \
        return fails(#call, __VA_ARGS__) ? -1 : real arguments;                                   \
    }
#define FAULTY_64(Result, call, ...)  \
    FAULTY(Result, call, __VA_ARGS__) \
    FAULTY(Result, call##64, __VA_ARGS__)

FAULTY_64(int, open, (const char* p, int flags, mode_t mode), (p, flags, mode),
          (flags & O_CREAT) != 0 ? AT_FDCWD : nowhere, (flags & O_CREAT) != 0 ? p : nullptr)
FAULTY(int, openat, (int at, const char* p, int flags, mode_t mode), (at, p, flags, mode),
       (flags & O_CREAT) != 0 ? at : nowhere, (flags & O_CREAT) != 0 ? p : nullptr)
FAULTY(int, mkdir, (const char* p, mode_t mode), (p, mode), AT_FDCWD, p)
FAULTY(int, mkdirat, (int at, const char* p, mode_t mode), (at, p, mode), at, p)
FAULTY(int, symlink, (const char* target, const char* p), (target, p), AT_FDCWD, p)
FAULTY(int, symlinkat, (const char* target, int at, const char* p), (target, at, p), at, p)
FAULTY(int, rename, (const char* from, const char* p), (from, p), AT_FDCWD, p)
FAULTY(int, renameat2, (int from, const char* name, int at, const char* p, unsigned flags),
       (from, name, at, p, flags), at, p, from)
FAULTY(int, unlink, (const char* p), (p), AT_FDCWD, p)
FAULTY(int, unlinkat, (int at, const char* p, int flags), (at, p, flags), at, p)
FAULTY_64(ssize_t, pwrite, (int fd, const void* data, std::size_t size, off_t to),
          (fd, data, size, to), fd)
FAULTY(ssize_t, copy_file_range,
       (int from, off_t* begin, int to, off_t* at, std::size_t size, unsigned flags),
       (from, begin, to, at, size, flags), to)
FAULTY(int, ioctl, (int fd, unsigned long what, void* argument), (fd, what, argument),
       what == FICLONE ? fd : nowhere)
FAULTY_64(int, ftruncate, (int fd, off_t size), (fd, size), fd)
FAULTY(int, fchmod, (int fd, mode_t mode), (fd, mode), fd)
FAULTY(int, futimens, (int fd, const timespec* times), (fd, times), fd)
FAULTY(int, utimensat, (int at, const char* p, const timespec* times, int flags),
       (at, p, times, flags), at, p)
FAULTY(int, fsetxattr, (int fd, const char* name, const void* data, std::size_t size, int flags),
       (fd, name, data, size, flags), fd)
FAULTY(int, setxattr,
       (const char* p, const char* name, const void* data, std::size_t size, int flags),
       (p, name, data, size, flags), descriptorOf(p))
FAULTY(int, removexattr, (const char* p, const char* name), (p, name), descriptorOf(p))
FAULTY(int, fsync, (int fd), (fd), fd)
FAULTY(int, fdatasync, (int fd), (fd), fd)

extern "C" int faulty_fstatvfs(int fd, struct statvfs* status) asm("fstatvfs");
int faulty_fstatvfs(int fd, struct statvfs* status) {
    static const auto real =
        reinterpret_cast<int (*)(int, struct statvfs*)>(dlsym(RTLD_NEXT, "fstatvfs"));
    const int result = real(fd, status);
    if (result == 0 && isFull) status->f_bavail = 0;
    return result;
}

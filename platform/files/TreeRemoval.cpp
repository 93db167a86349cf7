#include "platform/files/TreeRemoval.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/files/DirectoryStream.h"
#include "platform/files/FileDescriptor.h"
#include "platform/files/SystemCalls.h"

namespace platform {

namespace {

constexpr int mostRounds = 8;  // while others put new entries into what is being removed

Result<void> failure(int code) {
    return std::unexpected(errorFromErrno(code));
}

Result<void> removeObject(int folder, const char* name, bool isFolder, QSProgress& progress);

Result<void> removeEntries(int folder, const char* name, QSProgress& progress) {
    FileDescriptor fd(openBeneath(folder, name, O_RDONLY | O_DIRECTORY,
                                  RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_XDEV));
    if (!fd) return failure(errno);
    const auto entries = directoryStream(fd.get());
    if (!entries) return failure(errno);
    for (;;) {
        errno = 0;
        const auto* entry = readdir(entries.get());
        if (!entry) break;
        const std::string_view child = entry->d_name;
        if (child == "." || child == "..") continue;
        auto removed = removeObject(fd.get(), entry->d_name, entry->d_type == DT_DIR, progress);
        if (!removed) return removed;
    }
    return errno == 0 ? Result<void>() : failure(errno);
}

Result<void> removeFolder(int folder, const char* name, QSProgress& progress) {
    for (int round = 0; round < mostRounds; ++round) {
        // Empty ones, and those that have become so, go without being read.
        if (unlinkat(folder, name, AT_REMOVEDIR) == 0 || errno == ENOENT) return {};
        if (errno != ENOTEMPTY && errno != EEXIST) return failure(errno);
        if (auto removed = removeEntries(folder, name, progress); !removed) return removed;
    }
    return unlinkat(folder, name, AT_REMOVEDIR) == 0 ? Result<void>() : failure(errno);
}

Result<void> removeObject(int folder, const char* name, bool isFolder, QSProgress& progress) {
    if (progress.isCancelled()) return failure(ECANCELED);
    Result<void> removed;
    if (isFolder) {
        removed = removeFolder(folder, name, progress);
    } else if (unlinkat(folder, name, 0) != 0 && errno != ENOENT) {
        removed = errno == EISDIR ? removeFolder(folder, name, progress) : failure(errno);
    }
    if (removed) progress.addItem();
    return removed;
}

}  // namespace

Result<void> removeTree(int folder, const std::string& name, QSProgress& progress) {
    return removeObject(folder, name.c_str(), false, progress);
}

}  // namespace platform

#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <memory>

namespace platform {

struct CloseDirectory {
    void operator()(DIR* directory) const { closedir(directory); }
};
/// The entries of an open folder through a descriptor of its own; null with errno.
using DirectoryStream = std::unique_ptr<DIR, CloseDirectory>;

[[nodiscard]] inline DirectoryStream directoryStream(int folder) {
    const int own = fcntl(folder, F_DUPFD_CLOEXEC, 0);
    DIR* stream = own < 0 ? nullptr : fdopendir(own);
    if (!stream && own >= 0) ::close(own);
    return DirectoryStream(stream);
}

}  // namespace platform

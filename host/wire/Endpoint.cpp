#include "host/wire/Endpoint.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

namespace host {

using platform::FileDescriptor;
using platform::Result;

namespace {

/// The address of a name in an open folder: paths may be longer than an address can be.
Result<sockaddr_un> addressIn(const FileDescriptor& folder, const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const auto text =
        "/proc/self/fd/" + std::to_string(folder.get()) + path.substr(path.rfind('/'));
    if (text.size() >= sizeof address.sun_path) {
        return std::unexpected(platform::errorFromErrno(ENAMETOOLONG, path));
    }
    std::memcpy(address.sun_path, text.data(), text.size());
    return address;
}

/// sockaddr_un as the socket calls take it.
const sockaddr* generic(const sockaddr_un& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

std::string folderOf(const std::string& path) {
    return path.substr(0, path.rfind('/'));
}

bool isPrivate(int folder) {
    struct stat status {};
    return fstat(folder, &status) == 0 && status.st_uid == geteuid() &&
           (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
}

Result<void> checkPeer(const FileDescriptor& socket, const std::string& path) {
    ucred peer{};
    socklen_t size = sizeof peer;
    if (getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
        return std::unexpected(platform::errorFromErrno(errno, path));
    }
    if (peer.uid != geteuid()) return std::unexpected(platform::errorFromErrno(EACCES, path));
    return {};
}

}  // namespace

std::string Endpoint::pathFor(const std::string& dataFolder) {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    struct stat status {};
    const bool isUsable = runtime && runtime[0] == '/' && stat(runtime, &status) == 0 &&
                          S_ISDIR(status.st_mode) && status.st_uid == geteuid();
    if (!isUsable || stat(dataFolder.c_str(), &status) != 0) {
        std::error_code failure;
        return std::filesystem::absolute(dataFolder, failure).string() + "/service/socket";
    }
    std::array<char, 40> name{};
    (void)std::snprintf(name.data(), name.size(), "%jx-%jx",
                        static_cast<std::uintmax_t>(status.st_dev),
                        static_cast<std::uintmax_t>(status.st_ino));
    return std::string(runtime) + "/tidewell/" + name.data() + "/socket";
}

Result<Endpoint> Endpoint::listen(const std::string& path) {
    const auto failed = [&](int code) {
        return std::unexpected(platform::errorFromErrno(code, path));
    };
    const auto folderPath = folderOf(path);
    for (const auto& part : {folderOf(folderPath), folderPath}) {
        if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) return failed(errno);
    }
    FileDescriptor folder(open(folderPath.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder) return failed(errno);
    if (!isPrivate(folder.get())) return failed(EACCES);
    const auto address = addressIn(folder, path);
    if (!address) return std::unexpected(address.error());
    if (unlinkat(folder.get(), path.substr(path.rfind('/') + 1).c_str(), 0) != 0 &&
        errno != ENOENT) {
        return failed(errno);
    }
    FileDescriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!listener) return failed(errno);
    if (bind(listener.get(), generic(*address), sizeof *address) != 0) return failed(errno);
    if (::listen(listener.get(), SOMAXCONN) != 0) return failed(errno);
    return Endpoint(path, std::move(folder), std::move(listener));
}

Endpoint::~Endpoint() {
    if (socket_) (void)unlinkat(folder_.get(), path_.substr(path_.rfind('/') + 1).c_str(), 0);
}

Result<FileDescriptor> Endpoint::accept() const {
    FileDescriptor client(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!client) return std::unexpected(platform::errorFromErrno(errno, path_));
    if (auto peer = checkPeer(client, path_); !peer) return std::unexpected(peer.error());
    return client;
}

Result<FileDescriptor> Endpoint::connect(const std::string& path) {
    const auto failed = [&](int code) {
        return std::unexpected(platform::errorFromErrno(code, path));
    };
    const FileDescriptor folder(open(folderOf(path).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!folder) return failed(errno);
    const auto address = addressIn(folder, path);
    if (!address) return std::unexpected(address.error());
    FileDescriptor client(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!client) return failed(errno);
    if (::connect(client.get(), generic(*address), sizeof *address) != 0) return failed(errno);
    if (auto peer = checkPeer(client, path); !peer) return std::unexpected(peer.error());
    return client;
}

}  // namespace host

#pragma once

#include <string>

#include "platform/files/FileDescriptor.h"
#include "platform/foundation/QSError.h"

namespace host {

/// A Unix socket in a folder of the user's own at which a document service is reached.
class Endpoint {
  public:
    /// Where the service of the store in this native folder listens: in the user's runtime folder
    /// or, without one, in the store's folder.
    [[nodiscard]] static std::string pathFor(const std::string& dataFolder);

    /// Listens at the path, in place of what an earlier service left there; the folder is made with
    /// mode 0700. REQUIRES: nobody else serves the store. Fails with EACCES where the folder is
    /// another user's or open to others.
    [[nodiscard]] static platform::Result<Endpoint> listen(const std::string& path);
    /// Removes the socket.
    ~Endpoint();
    Endpoint(Endpoint&& other) noexcept = default;
    Endpoint& operator=(Endpoint&&) = delete;

    [[nodiscard]] const std::string& path() const { return path_; }
    /// Readable when somebody has connected.
    [[nodiscard]] int descriptor() const { return socket_.get(); }
    /// One who has connected; EAGAIN where nobody has, EACCES for a process of another user.
    [[nodiscard]] platform::Result<platform::FileDescriptor> accept() const;

    /// Connects to who listens at the path. ECONNREFUSED or ENOENT where nobody does, EACCES where
    /// it is a process of another user.
    [[nodiscard]] static platform::Result<platform::FileDescriptor> connect(
        const std::string& path);

  private:
    Endpoint(std::string path, platform::FileDescriptor folder, platform::FileDescriptor socket)
        : path_(std::move(path)), folder_(std::move(folder)), socket_(std::move(socket)) {}

    std::string path_;
    platform::FileDescriptor folder_;
    platform::FileDescriptor socket_;
};

}  // namespace host

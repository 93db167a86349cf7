#pragma once

#include <memory>
#include <string>
#include <utility>

#include "host/wire/RemoteSession.h"
#include "host/wire/SessionServer.h"

namespace tests {

/// A session behind a socket, as other processes see it.
class Served {
  public:
    /// The socket is in a folder of its own in `folder`, which is made where it is missing.
    Served(std::unique_ptr<host::Session> session, const std::string& folder)
        : session_(std::move(session)),
          server_(host::SessionServer::start(
                      host::Endpoint::listen(folder + "/service/socket").value(), *session_,
                      [](const std::string& text) {
                          return platform::Result<std::vector<std::string>>({text});
                      })
                      .value()),
          path_(folder + "/service/socket") {}

    [[nodiscard]] std::unique_ptr<host::ServiceClient> client() const {
        return host::ServiceClient::connect(host::Endpoint::connect(path_).value()).value();
    }
    [[nodiscard]] std::unique_ptr<host::RemoteSession> connect() const {
        return std::make_unique<host::RemoteSession>(client());
    }
    [[nodiscard]] host::SessionServer& server() { return *server_; }
    [[nodiscard]] const std::string& path() const { return path_; }
    void end() { server_.reset(); }

  private:
    std::unique_ptr<host::Session> session_;
    std::unique_ptr<host::SessionServer> server_;
    std::string path_;
};

}  // namespace tests

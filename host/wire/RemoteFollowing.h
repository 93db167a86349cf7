#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "host/session/Following.h"
#include "host/wire/ServiceClient.h"

namespace host {

/// One who follows a container through a service. The end of the connection counts as signalled;
/// what is asked then fails.
class RemoteFollowing final : public Following {
  public:
    /// `client` must outlive it.
    [[nodiscard]] static platform::Result<std::unique_ptr<Following>> begin(
        ServiceClient& client, const std::string& container);
    ~RemoteFollowing() override;
    RemoteFollowing(const RemoteFollowing&) = delete;
    RemoteFollowing& operator=(const RemoteFollowing&) = delete;

    [[nodiscard]] bool wait(std::chrono::milliseconds deadline) override;
    [[nodiscard]] platform::Result<ChangePage> changes(const Anchor& since) const override;
    [[nodiscard]] int descriptor() const override { return signalled_.get(); }

  private:
    RemoteFollowing(ServiceClient& client, platform::FileDescriptor signalled,
                    std::uint64_t number);

    ServiceClient& client_;
    const platform::FileDescriptor signalled_;
    const std::uint64_t number_;
};

}  // namespace host

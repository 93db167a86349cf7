#include "host/wire/RemoteFollowing.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <utility>

#include "host/wire/asking.h"

namespace host {

using platform::Result;

Result<std::unique_ptr<Following>> RemoteFollowing::begin(ServiceClient& client,
                                                          const std::string& container) {
    platform::FileDescriptor signalled(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!signalled) return std::unexpected(platform::errorFromErrno(errno));
    // Known before the service follows, so that no signal comes too early.
    std::unique_ptr<RemoteFollowing> following(
        new RemoteFollowing(client, std::move(signalled), client.nextNumber()));
    auto begun = ask<Nothing>(client, "Follow", following->number_, container);
    if (!begun) return std::unexpected(std::move(begun.error()));
    return following;
}

RemoteFollowing::RemoteFollowing(ServiceClient& client, platform::FileDescriptor signalled,
                                 std::uint64_t number)
    : client_(client), signalled_(std::move(signalled)), number_(number) {
    client_.notify(number_, signalled_.get());
}

RemoteFollowing::~RemoteFollowing() {
    client_.post("Unfollow", packed(number_));
    client_.forget(number_);
}

bool RemoteFollowing::wait(std::chrono::milliseconds deadline) {
    pollfd polled{signalled_.get(), POLLIN, 0};
    const auto limit = std::clamp<std::chrono::milliseconds::rep>(deadline.count(), 0, INT_MAX);
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(limit);
    for (auto rest = std::chrono::milliseconds(limit);
         poll(&polled, 1, static_cast<int>(rest.count())) < 0;) {
        if (errno != EINTR) return false;
        rest = std::max(
            std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()),
            std::chrono::milliseconds(0));
    }
    eventfd_t count = 0;
    return eventfd_read(signalled_.get(), &count) == 0;
}

Result<ChangePage> RemoteFollowing::changes(const Anchor& since) const {
    return ask<ChangePage>(client_, "ChangesFollowed", number_, since);
}

}  // namespace host

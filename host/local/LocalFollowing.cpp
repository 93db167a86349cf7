#include "host/local/LocalFollowing.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <utility>

#include "platform/fileprovider/QSFileProviderItem.h"

namespace host {

using platform::Result;
using Signal = SignalBoard::Signal;

namespace {

/// Blocks until the descriptor is readable, up to the point of time.
void awaitReadable(int descriptor, std::chrono::steady_clock::time_point end) {
    using std::chrono::milliseconds;
    pollfd polled{.fd = descriptor, .events = POLLIN, .revents = 0};
    for (int count = -1; count < 0;) {
        const auto rest =
            std::chrono::ceil<milliseconds>(end - std::chrono::steady_clock::now()).count();
        count = poll(&polled, 1, static_cast<int>(std::max<milliseconds::rep>(rest, 0)));
        if (count < 0 && errno != EINTR) return;
    }
}

}  // namespace

LocalFollowing::LocalFollowing(const ExtensionSession& session, std::shared_ptr<SignalBoard> board,
                               std::string container, std::shared_ptr<void> everywhere)
    : session_(session),
      container_(std::move(container)),
      board_(std::move(board)),
      everywhere_(std::move(everywhere)),
      inbox_(*board_, container_) {}

Result<std::unique_ptr<Following>> LocalFollowing::begin(const ExtensionSession& session,
                                                         std::shared_ptr<SignalBoard> board,
                                                         const std::string& container,
                                                         std::shared_ptr<void> everywhere) {
    std::unique_ptr<LocalFollowing> following(
        new LocalFollowing(session, std::move(board), container, std::move(everywhere)));
    if (following->descriptor() < 0) return std::unexpected(platform::errorFromErrno(errno));
    if (auto started = following->startWatch(); !started) return std::unexpected(started.error());
    return following;
}

/// Reads the place first: where the folder moves in between, it is found to have moved.
Result<void> LocalFollowing::startWatch() {
    const bool isTree = container_ == platform::QSFileProviderWorkingSetContainerItemIdentifier ||
                        container_ == platform::QSFileProviderAllDirectoriesContainerItemIdentifier;
    if (isTree || container_ == platform::QSFileProviderRootContainerItemIdentifier) {
        auto source = session_.newLease(container_);
        if (!source) return std::unexpected(std::move(source.error()));
        source_ = std::move(*source);
    }
    if (isTree) return {};
    auto place = session_.pathForIdentifier(container_);
    auto watch = session_.startWatch(container_);
    if (!watch) return std::unexpected(std::move(watch.error()));
    place_ = place ? std::optional(std::move(*place)) : std::nullopt;
    watch_ = std::move(*watch);
    return {};
}

Result<ChangePage> LocalFollowing::changes(const Anchor& since) const {
    return source_ ? session_.changes(*source_, since) : session_.changes(container_, since);
}

bool LocalFollowing::hasMoved() {
    if (!watch_ || source_) return false;
    const auto place = session_.pathForIdentifier(container_);
    if (!place || *place == place_) return false;
    return startWatch().has_value();
}

bool LocalFollowing::wait(std::chrono::milliseconds deadline) {
    const auto end =
        std::chrono::steady_clock::now() + std::min(deadline, std::chrono::milliseconds(INT_MAX));
    for (;;) {
        const auto signal = inbox_.pop();
        if (signal != Signal::None) {
            const bool moved = hasMoved();
            if (moved || signal == Signal::Signalled) return true;
        } else if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        awaitReadable(inbox_.descriptor(), end);
    }
}

}  // namespace host

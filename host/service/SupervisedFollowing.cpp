#include "host/service/SupervisedFollowing.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <utility>

#include "host/service/asking.h"

namespace host {

using platform::Result;

Result<std::unique_ptr<Following>> SupervisedFollowing::begin(Supervisor& supervisor,
                                                              const std::string& container) {
    platform::FileDescriptor either(epoll_create1(EPOLL_CLOEXEC));
    platform::FileDescriptor restarted(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    epoll_event event{.events = EPOLLIN, .data = {}};
    if (!either || !restarted ||
        epoll_ctl(either.get(), EPOLL_CTL_ADD, restarted.get(), &event) != 0) {
        return std::unexpected(platform::errorFromErrno(errno));
    }
    std::unique_ptr<SupervisedFollowing> following(
        new SupervisedFollowing(supervisor, container, std::move(either), std::move(restarted)));
    if (auto begun = following->follow(); !begun) {
        return std::unexpected(std::move(begun.error()));
    }
    return following;
}

SupervisedFollowing::SupervisedFollowing(Supervisor& supervisor, std::string container,
                                         platform::FileDescriptor either,
                                         platform::FileDescriptor restarted)
    : supervisor_(supervisor),
      container_(std::move(container)),
      either_(std::move(either)),
      restarted_(std::move(restarted)) {
    supervisor_.notify(restarted_.get());
}

SupervisedFollowing::~SupervisedFollowing() {
    supervisor_.forget(restarted_.get());
}

Result<void> SupervisedFollowing::follow() {
    // Closing its descriptor takes it out of the set.
    following_.reset();
    session_.reset();
    return askSupervised(supervisor_, [&](auto& session) -> Result<void> {
        auto begun = session.follow(container_);
        if (!begun) return std::unexpected(std::move(begun.error()));
        epoll_event event{.events = EPOLLIN, .data = {}};
        if (epoll_ctl(either_.get(), EPOLL_CTL_ADD, (*begun)->descriptor(), &event) != 0) {
            return std::unexpected(platform::errorFromErrno(errno));
        }
        session_ = session.shared_from_this();
        following_ = std::move(*begun);
        return {};
    });
}

bool SupervisedFollowing::wait(std::chrono::milliseconds deadline) {
    pollfd polled{either_.get(), POLLIN, 0};
    const auto limit = std::clamp<std::chrono::milliseconds::rep>(deadline.count(), 0, INT_MAX);
    if (poll(&polled, 1, static_cast<int>(limit)) <= 0) return false;
    eventfd_t count = 0;
    if (eventfd_read(restarted_.get(), &count) == 0) {
        // Where it fails, what the client asks next fails, too, and the next start comes here
        // again.
        if (!session_ || !supervisor_.isPresent(session_)) (void)follow();
        return true;
    }
    return following_ && following_->wait(std::chrono::milliseconds(0));
}

Result<ChangePage> SupervisedFollowing::changes(const Anchor& since) const {
    if (following_) {
        auto page = following_->changes(since);
        if (page || !meansServiceEnded(page.error())) return page;
        supervisor_.replace(session_);
    }
    return askSupervised(supervisor_,
                         [&](auto& session) { return session.changes(container_, since); });
}

}  // namespace host

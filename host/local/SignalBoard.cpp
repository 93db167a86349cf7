#include "host/local/SignalBoard.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "platform/fileprovider/QSFileProviderItem.h"

namespace host {

SignalBoard::Inbox::Inbox(SignalBoard& board, std::string container)
    : board_(board),
      container_(std::move(container)),
      descriptor_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    const std::scoped_lock lock(board_.mutex_);
    board_.inboxes_.insert(this);
}

SignalBoard::Inbox::~Inbox() {
    {
        const std::scoped_lock lock(board_.mutex_);
        board_.inboxes_.erase(this);
    }
    if (descriptor_ >= 0) close(descriptor_);
}

SignalBoard::Signal SignalBoard::Inbox::pop() {
    const std::scoped_lock lock(board_.mutex_);
    eventfd_t count = 0;
    (void)eventfd_read(descriptor_, &count);
    return std::exchange(signal_, Signal::None);
}

void SignalBoard::signal(const std::string& container) {
    const bool isEverywhere =
        container == platform::QSFileProviderAllDirectoriesContainerItemIdentifier;
    const std::scoped_lock lock(mutex_);
    for (auto* inbox : inboxes_) {
        const bool isMeant =
            inbox->container_ == container ||
            (isEverywhere &&
             inbox->container_ == platform::QSFileProviderWorkingSetContainerItemIdentifier);
        if (!isMeant && !isEverywhere) continue;
        inbox->signal_ = std::max(inbox->signal_, isMeant ? Signal::Signalled : Signal::Elsewhere);
        (void)eventfd_write(inbox->descriptor_, 1);
    }
}

}  // namespace host

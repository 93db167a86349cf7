#include "cli/Interruption.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <atomic>
#include <cerrno>
#include <iterator>

namespace cli {

namespace {

// Readable once a signal came. Any thread may take it, also one that is still at it when nobody is
// interested any more: so the descriptor is never closed.
std::atomic<int> interrupted = -1;
static_assert(std::atomic<int>::is_always_lock_free);

extern "C" void noteInterruption(int /*signal*/) {
    const int saved = errno;
    (void)eventfd_write(interrupted, 1);
    errno = saved;
}

}  // namespace

Interruption::Interruption() {
    if (interrupted < 0) interrupted = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (interrupted < 0) return;
    eventfd_t earlier = 0;
    (void)eventfd_read(interrupted, &earlier);
    struct sigaction action {};
    action.sa_handler = noteInterruption;
    action.sa_flags = static_cast<int>(SA_RESTART | SA_RESETHAND);
    sigaction(SIGINT, &action, &onInterrupt_);
    sigaction(SIGTERM, &action, &onTerminate_);
}

Interruption::~Interruption() {
    sigaction(SIGINT, &onInterrupt_, nullptr);
    sigaction(SIGTERM, &onTerminate_, nullptr);
}

bool Interruption::hasCome() const {
    pollfd polled{.fd = interrupted, .events = POLLIN, .revents = 0};
    return poll(&polled, 1, 0) == 1;
}

bool Interruption::waitFor(int input, int output) const {
    // A pipe or socket without a reader has an error, which poll reports unasked.
    pollfd polled[] = {{.fd = interrupted, .events = POLLIN, .revents = 0},
                       {.fd = output, .events = 0, .revents = 0},
                       {.fd = input, .events = POLLIN, .revents = 0}};
    while (poll(polled, std::size(polled), -1) < 0) {
        if (errno != EINTR) return false;
    }
    return polled[0].revents == 0 && (polled[1].revents & (POLLERR | POLLHUP)) == 0;
}

}  // namespace cli

#include "cli/StorageWait.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <cstdint>

#include "cli/Interruption.h"

namespace cli {

bool waitForStorage(const std::function<bool()>& isThere) {
    const Interruption interruption;
    const int timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
    const itimerspec everySecond{{1, 0}, {1, 0}};
    bool goesOn = timer >= 0 && timerfd_settime(timer, 0, &everySecond, nullptr) == 0;
    while (goesOn && !isThere()) {
        goesOn = interruption.waitFor(timer, STDOUT_FILENO);
        std::uint64_t expirations = 0;
        if (goesOn) (void)!read(timer, &expirations, sizeof expirations);
    }
    if (timer >= 0) close(timer);
    return goesOn;
}

}  // namespace cli

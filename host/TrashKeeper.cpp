#include "host/TrashKeeper.h"

#include <ctime>

namespace host {

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::seconds between = 24h;
constexpr std::chrono::seconds mostDifference = 1h;
constexpr std::chrono::seconds betweenLooks = 10min;  // timers stand still while the machine sleeps

}  // namespace

TrashKeeper::TrashKeeper(std::chrono::seconds age, Removal remove, Clocks clocks, bool runsByItself)
    : age_(age), remove_(std::move(remove)), clocks_(std::move(clocks)) {
    if (runsByItself) thread_ = std::thread([this] { run(); });
}

TrashKeeper::~TrashKeeper() {
    {
        const std::scoped_lock lock(mutex_);
        isStopping_ = true;
    }
    stopping_.notify_all();
    if (thread_.joinable()) thread_.join();
}

std::chrono::seconds TrashKeeper::sinceBoot() {
    timespec time{};
    clock_gettime(CLOCK_BOOTTIME, &time);
    return std::chrono::seconds(time.tv_sec);
}

void TrashKeeper::step() {
    const Moment now{clocks_.wall(), clocks_.monotonic()};
    if (last_) {
        const auto passed = now.monotonic - last_->monotonic;
        if (passed < between) return;
        const auto shown = std::chrono::seconds(now.wall.seconds - last_->wall.seconds);
        const bool agree = std::chrono::abs(shown - passed) <= mostDifference;
        last_ = now;
        if (!agree) return;
    }
    last_ = now;
    remove_({now.wall.seconds - age_.count(), now.wall.nanoseconds});
}

void TrashKeeper::run() {
    std::unique_lock lock(mutex_);
    while (!isStopping_) {
        lock.unlock();
        step();
        lock.lock();
        stopping_.wait_for(lock, betweenLooks, [this] { return isStopping_; });
    }
}

}  // namespace host

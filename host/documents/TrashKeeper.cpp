#include "host/documents/TrashKeeper.h"

#include <ctime>

namespace host {

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::seconds between = 24h;
constexpr std::chrono::seconds betweenLooks = 10min;  // timers stand still while the machine sleeps

}  // namespace

TrashKeeper::TrashKeeper(Limit limit, Removal remove, Clock clock, bool runsByItself)
    : limit_(std::move(limit)), remove_(std::move(remove)), clock_(std::move(clock)) {
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
    const auto now = clock_();
    if (last_ && now - *last_ < between) return;
    last_ = now;
    if (const auto date = limit_()) remove_(*date);
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

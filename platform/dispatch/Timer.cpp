#include "platform/dispatch/Timer.h"

#include <pthread.h>

#include <thread>

namespace platform {

Timer& Timer::shared() {
    static Timer* const timer = new Timer;
    return *timer;
}

void Timer::runAt(Time time, Work work) {
    const std::scoped_lock lock(mutex_);
    if (!isStarted_) {
        std::thread([this] { runThread(); }).detach();
        isStarted_ = true;
    }
    const auto position = works_.emplace(time, std::move(work));
    if (position == works_.begin()) earlier_.notify_one();
}

void Timer::runAfter(std::chrono::nanoseconds delay, Work work) {
    const Time now = std::chrono::steady_clock::now();
    runAt(delay < Time::max() - now ? now + delay : Time::max(), std::move(work));
}

void Timer::runThread() {
    pthread_setname_np(pthread_self(), "timer");
    std::unique_lock lock(mutex_);
    while (true) {
        if (works_.empty()) {
            earlier_.wait(lock);
        } else if (const Time first = works_.begin()->first;
                   std::chrono::steady_clock::now() < first) {
            earlier_.wait_until(lock, first);
        } else {
            auto due = works_.extract(works_.begin());
            lock.unlock();
            due.mapped()();
            due = {};
            lock.lock();
        }
    }
}

}  // namespace platform

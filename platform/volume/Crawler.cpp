#include "platform/volume/Crawler.h"

#include <algorithm>
#include <utility>

namespace platform {

Crawler::Crawler(Crawl crawl, std::chrono::milliseconds interval)
    : crawl_(std::move(crawl)), interval_(interval), thread_([this] { run(); }) {}

Crawler::~Crawler() {
    {
        std::unique_lock lock(mutex_);
        stop_ = true;
        changed_.notify_all();
        changed_.wait(lock, [this] { return waiting_ == 0; });
    }
    thread_.join();
}

Crawler::Number Crawler::current() const {
    const std::scoped_lock lock(mutex_);
    return requested_ > ended_ ? ended_ + 1 : 0;
}

Crawler::Number Crawler::next() const {
    const std::scoped_lock lock(mutex_);
    return begun_ + 1;
}

void Crawler::request(Number number) {
    const std::scoped_lock lock(mutex_);
    requested_ = std::max(requested_, number);
    changed_.notify_all();
}

bool Crawler::wait(Number number) {
    std::unique_lock lock(mutex_);
    requested_ = std::max(requested_, number);
    ++waiting_;
    changed_.notify_all();
    changed_.wait(lock, [&] { return stop_ || ended_ >= number; });
    --waiting_;
    changed_.notify_all();
    return ended_ >= number;
}

void Crawler::run() {
    while (runNext()) continue;
}

bool Crawler::runNext() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return stop_ || requested_ > begun_; });
    changed_.wait_until(lock, earliest_, [this] { return stop_.load(); });
    if (stop_) return false;
    ++begun_;
    earliest_ = std::chrono::steady_clock::now() + interval_;
    lock.unlock();
    crawl_(stop_);
    lock.lock();
    if (stop_) return false;
    ended_ = begun_;
    changed_.notify_all();
    return true;
}

}  // namespace platform

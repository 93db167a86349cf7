#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>

namespace platform {

/// One background thread that runs crawls on demand, one at a time and none sooner than `interval`
/// after the last began. Crawls are numbered from 1. Any thread.
class Crawler {
  public:
    using Number = std::uint64_t;
    /// One whole crawl; returns early, and soon, once `stop` is true.
    using Crawl = std::function<void(const std::atomic<bool>& stop)>;

    Crawler(Crawl crawl, std::chrono::milliseconds interval);
    /// Stops the running crawl, ends every wait and blocks until those who waited have left.
    ~Crawler();

    /// The running (or already asked for) crawl, 0 where there is none.
    [[nodiscard]] Number current() const;
    /// The first crawl that will begin after this call.
    [[nodiscard]] Number next() const;

    void request(Number number);
    /// Asks for the crawl and blocks until it has ended; false where the crawler is being
    /// destroyed.
    [[nodiscard]] bool wait(Number number);

  private:
    void run();
    bool runNext();

    // Constant after construction.
    const Crawl crawl_;
    const std::chrono::milliseconds interval_;

    std::atomic<bool> stop_ = false;  // set under mutex_

    // Guarded by mutex_.
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    Number requested_ = 0;
    Number begun_ = 0;
    Number ended_ = 0;
    int waiting_ = 0;
    std::chrono::steady_clock::time_point earliest_{};

    std::thread thread_;
};

}  // namespace platform

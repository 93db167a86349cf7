#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>

#include "platform/dispatch/Queue.h"

namespace platform {

/// Runs work at points of the monotonic clock, all of it on one thread that starts with the first
/// use. For hand-overs only: work here must neither block nor take long. Any thread.
class Timer {
  public:
    using Time = std::chrono::steady_clock::time_point;

    /// The one of the process. Never destroyed: its thread outlives static destruction.
    [[nodiscard]] static Timer& shared();

    /// Never blocks. Works of equal `time` run in the order in which they came.
    void runAt(Time time, Work work);
    /// The same, `delay` from now; beyond what the clock can hold means never.
    void runAfter(std::chrono::nanoseconds delay, Work work);

  private:
    Timer() = default;
    ~Timer() = delete;

    [[noreturn]] void runThread();

    std::mutex mutex_;
    // Guarded by mutex_.
    std::multimap<Time, Work> works_;
    bool isStarted_ = false;
    std::condition_variable earlier_;  // the first time came nearer
};

}  // namespace platform

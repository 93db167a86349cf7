#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace platform {

using Work = std::move_only_function<void()>;

/// Where queues find threads. Grows when workers block, shrinks when they idle, so that a blocked
/// queue never starves another and an idle one costs no thread. Destroying it waits for work that
/// runs; work that has not begun is dropped.
class WorkerPool;

/// A serial queue: a label, a FIFO and no thread of its own. Blocks run one at a time, in order of
/// submission, each on some worker of the pool. A handle; copies mean the same queue, which lives
/// until its last block has run.
class SerialQueue {
  public:
    explicit SerialQueue(std::string label);

    /// Never blocks. Work may itself submit work, also to this queue.
    void async(Work work) const;

    /// Runs `work` not before `delay` has passed on the monotonic clock. Never blocks.
    void asyncAfter(std::chrono::nanoseconds delay, Work work) const;

    /// Runs `work` behind everything submitted before and returns when it has ended; blocks without
    /// limit. Called on this very queue it is a fatal error, not a deadlock.
    void sync(std::move_only_function<void()> work) const;

    /// Fatal unless the caller runs on this queue.
    void assertOnQueue() const;
    /// Fatal if the caller runs on this queue.
    void assertNotOnQueue() const;

    [[nodiscard]] const std::string& label() const;

    friend bool operator==(const SerialQueue&, const SerialQueue&) = default;

  private:
    struct State;
    std::shared_ptr<State> state_;
};

/// The queue of work that belongs to no one in particular ("main").
[[nodiscard]] const SerialQueue& mainQueue();

/// Runs `work` on some worker, beside everything else.
void dispatchConcurrently(Work work);

}  // namespace platform

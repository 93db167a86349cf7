#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace platform {

/// Must not throw.
using Work = std::move_only_function<void()>;

/// A serial queue: a label, a FIFO and no thread of its own. Blocks run one at a time, in order of
/// submission, each on some worker of a pool that the process shares; the pool grows when workers
/// block and shrinks when they idle. A handle; copies mean the same queue, which lives until its
/// last block has run. A moved-from handle may only be assigned to or destroyed. Any thread.
///
/// "On the queue" means within one of its blocks, or within a block of another queue for which such
/// a block waits in sync().
class SerialQueue {
  public:
    explicit SerialQueue(std::string label);

    /// Never blocks. Work may itself submit work, also to this queue.
    void async(Work work) const;

    /// Runs `work` not before `delay` has passed on the monotonic clock; zero or less means now.
    /// Never blocks.
    void asyncAfter(std::chrono::nanoseconds delay, Work work) const;

    /// Runs `work` behind everything submitted before and returns when it has ended; blocks without
    /// limit. Where nothing is ahead of it, `work` runs on the calling thread. Called on this very
    /// queue it is a fatal error, not a deadlock.
    void sync(Work work) const;

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

/// Runs `work` on some worker, beside everything else. Never blocks; any thread.
void dispatchConcurrently(Work work);

}  // namespace platform

#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "platform/dispatch/Queue.h"

namespace platform {

/// Runs an event block on a queue at most once an interval: a signal is answered by one firing at
/// the end of the interval that it begins, together with those that arrive within it. Any thread.
class QPPacer {
  public:
    QPPacer(std::string name, SerialQueue queue, std::chrono::nanoseconds minFireInterval);
    /// No event begins after this, unless it was already handed to the queue's current block.
    ~QPPacer();

    /// REQUIRES: set before resume().
    void setEventBlock(std::function<void()> block);
    /// Signals before this one are kept and count as one.
    void resume();
    void signal();

  private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace platform

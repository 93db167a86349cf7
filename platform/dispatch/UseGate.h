#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

namespace platform {

/// Lets blocks on queues use what may be torn down at any time: a block enters before it does, and
/// closing waits for those inside. Shared by both sides. Any thread.
class UseGate {
  public:
    struct Leave {
        void operator()(UseGate* gate) const { gate->leave(); }
    };
    /// To be destroyed before the gate is.
    using Pass = std::unique_ptr<UseGate, Leave>;

    /// Null once the gate closes; never blocks.
    [[nodiscard]] Pass enter();

    /// Lets nobody in from now on and waits until all have left; a caller that is inside itself
    /// waits for ever. Again is fine.
    void close();

  private:
    void leave();

    std::mutex mutex_;
    std::condition_variable empty_;
    // Guarded by mutex_.
    std::uint64_t inside_ = 0;
    bool isClosed_ = false;
};

}  // namespace platform

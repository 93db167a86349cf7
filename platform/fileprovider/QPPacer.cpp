#include "platform/fileprovider/QPPacer.h"

#include <mutex>

namespace platform {

struct QPPacer::State : std::enable_shared_from_this<State> {
    State(std::string label, SerialQueue target, std::chrono::nanoseconds interval)
        : name(std::move(label)), queue(std::move(target)), minFireInterval(interval) {}

    void schedule();
    void fire();

    const std::string name;  // for debuggers
    const SerialQueue queue;
    const std::chrono::nanoseconds minFireInterval;

    std::mutex mutex;
    // Guarded by mutex.
    std::shared_ptr<const std::function<void()>> block;
    bool isResumed = false;
    bool isSignalled = false;  // since the last event began
    bool isScheduled = false;
    bool isStopped = false;
};

/// REQUIRES: mutex is locked.
void QPPacer::State::schedule() {
    if (!isResumed || !isSignalled || isScheduled || isStopped) return;
    isScheduled = true;
    queue.asyncAfter(minFireInterval, [weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->fire();
    });
}

/// On the queue.
void QPPacer::State::fire() {
    std::shared_ptr<const std::function<void()>> event;
    {
        const std::scoped_lock lock(mutex);
        if (isStopped) return;
        isScheduled = false;
        isSignalled = false;
        event = block;
    }
    if (event && *event) (*event)();
}

QPPacer::QPPacer(std::string name, SerialQueue queue, std::chrono::nanoseconds minFireInterval)
    : state_(std::make_shared<State>(std::move(name), std::move(queue), minFireInterval)) {}

QPPacer::~QPPacer() {
    std::shared_ptr<const std::function<void()>> unused;  // what it holds goes without the lock
    const std::scoped_lock lock(state_->mutex);
    state_->isStopped = true;
    unused.swap(state_->block);
}

void QPPacer::setEventBlock(std::function<void()> block) {
    auto kept = std::make_shared<const std::function<void()>>(std::move(block));
    const std::scoped_lock lock(state_->mutex);
    state_->block.swap(kept);
}

void QPPacer::resume() {
    const std::scoped_lock lock(state_->mutex);
    state_->isResumed = true;
    state_->schedule();
}

void QPPacer::signal() {
    const std::scoped_lock lock(state_->mutex);
    state_->isSignalled = true;
    state_->schedule();
}

}  // namespace platform

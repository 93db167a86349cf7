#include "platform/dispatch/Queue.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <utility>

#include "platform/dispatch/Timer.h"
#include "platform/dispatch/WorkerPool.h"
#include "platform/foundation/fatalError.h"

namespace platform {

namespace {

/// So many blocks of one queue run before other queues have their turn.
constexpr int blocksPerTurn = 64;

/// One block that runs, on the stack of its thread.
struct Frame {
    const void* queue;
    const Frame* waiting;  // the block that waits for this one in sync()
};

thread_local Frame* currentFrame = nullptr;

bool isOn(const void* queue) {
    for (const Frame* frame = currentFrame; frame; frame = frame->waiting) {
        if (frame->queue == queue) return true;
    }
    return false;
}

/// Runs and then destroys `work` as a block of `queue`.
void runBlock(const void* queue, Work work) noexcept {
    Frame frame{queue, currentFrame};
    Frame* const outer = std::exchange(currentFrame, &frame);
    work();
    work = nullptr;
    currentFrame = outer;
}

}  // namespace

struct SerialQueue::State : std::enable_shared_from_this<State> {
    explicit State(std::string name) : label(std::move(name)) {}

    void submit(Work work);
    void scheduleTurn();
    void runTurn();
    bool beginIfIdle();
    void endOrScheduleTurn();
    void runBehindOthers(Work& work);

    const std::string label;

    std::mutex mutex;
    // Guarded by mutex.
    std::deque<Work> pending;
    bool isActive = false;  // a turn is under way or scheduled, or sync() runs a block
};

void SerialQueue::State::submit(Work work) {
    {
        const std::scoped_lock lock(mutex);
        pending.push_back(std::move(work));
        if (isActive) return;
        isActive = true;
    }
    scheduleTurn();
}

/// REQUIRES: isActive, and the caller is why.
void SerialQueue::State::scheduleTurn() {
    WorkerPool::shared().submit([self = shared_from_this()] { self->runTurn(); });
}

void SerialQueue::State::runTurn() {
    for (int count = 0; count < blocksPerTurn; ++count) {
        Work next;
        {
            const std::scoped_lock lock(mutex);
            if (pending.empty()) {
                isActive = false;
                return;
            }
            next = std::move(pending.front());
            pending.pop_front();
        }
        runBlock(this, std::move(next));
    }
    endOrScheduleTurn();
}

bool SerialQueue::State::beginIfIdle() {
    const std::scoped_lock lock(mutex);
    return !std::exchange(isActive, true);
}

void SerialQueue::State::endOrScheduleTurn() {
    {
        const std::scoped_lock lock(mutex);
        if (pending.empty()) {
            isActive = false;
            return;
        }
    }
    scheduleTurn();
}

void SerialQueue::State::runBehindOthers(Work& work) {
    std::mutex endMutex;
    std::condition_variable ended;
    bool hasEnded = false;
    const Frame* const caller = currentFrame;
    submit([&] {
        currentFrame->waiting = caller;
        work();
        work = nullptr;
        // Notifying under the lock keeps the waiter, and so these variables, until it is done.
        const std::scoped_lock lock(endMutex);
        hasEnded = true;
        ended.notify_one();
    });
    const WorkerPool::Wait wait;
    std::unique_lock lock(endMutex);
    ended.wait(lock, [&] { return hasEnded; });
}

SerialQueue::SerialQueue(std::string label) : state_(std::make_shared<State>(std::move(label))) {}

void SerialQueue::async(Work work) const {
    state_->submit(std::move(work));
}

void SerialQueue::asyncAfter(std::chrono::nanoseconds delay, Work work) const {
    if (delay <= std::chrono::nanoseconds::zero()) return async(std::move(work));
    Timer::shared().runAfter(delay, [state = state_, work = std::move(work)]() mutable {
        state->submit(std::move(work));
    });
}

void SerialQueue::sync(Work work) const {
    assertNotOnQueue();
    const std::shared_ptr<State> state = state_;  // `work` may destroy this handle
    if (state->beginIfIdle()) {
        runBlock(state.get(), std::move(work));
        state->endOrScheduleTurn();
    } else {
        state->runBehindOthers(work);
    }
}

void SerialQueue::assertOnQueue() const {
    if (!isOn(state_.get())) fatalError("not on the queue \"" + label() + "\"");
}

void SerialQueue::assertNotOnQueue() const {
    if (isOn(state_.get())) fatalError("already on the queue \"" + label() + "\"");
}

const std::string& SerialQueue::label() const {
    return state_->label;
}

const SerialQueue& mainQueue() {
    static const SerialQueue* const queue = new SerialQueue("main");
    return *queue;
}

void dispatchConcurrently(Work work) {
    WorkerPool::shared().submit(std::move(work));
}

}  // namespace platform

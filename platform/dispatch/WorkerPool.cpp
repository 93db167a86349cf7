#include "platform/dispatch/WorkerPool.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/dispatch/Timer.h"

namespace platform {

namespace {

/// How long work may wait before the pool asks itself whether its workers are blocked.
constexpr std::chrono::milliseconds patience{10};

/// Of the worker that the thread is; null on another thread.
thread_local WorkerPool* poolOfThread = nullptr;

/// Whether the thread of this process runs or waits for nothing but a processor.
bool isRunnable(pid_t thread) {
    char text[64];
    std::snprintf(text, sizeof text, "/proc/self/task/%d/stat", thread);
    const int descriptor = ::open(text, O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) return false;
    const ssize_t size = ::read(descriptor, text, sizeof text);
    ::close(descriptor);
    const std::string_view stat(text, static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    return stat.find(") R ") != stat.npos;
}

}  // namespace

WorkerPool& WorkerPool::shared() {
    static WorkerPool* const pool =
        new WorkerPool({.atOnce = std::max(2U, std::thread::hardware_concurrency())});
    return *pool;
}

WorkerPool::Wait::Wait() : pool_(poolOfThread) {
    if (!pool_) return;
    {
        const std::scoped_lock lock(pool_->mutex_);
        ++pool_->waitCount_;
    }
    pool_->watchProgress();
}

WorkerPool::Wait::~Wait() {
    if (!pool_) return;
    const std::scoped_lock lock(pool_->mutex_);
    --pool_->waitCount_;
}

std::size_t WorkerPool::room() const {
    const auto most = limits_.most + waitCount_;
    return most - std::min(most, workerCount_);
}

void WorkerPool::submit(Work work) {
    std::size_t started = 0;
    {
        const std::scoped_lock lock(mutex_);
        if (!idle_.empty()) {
            Worker& worker = *idle_.back();
            idle_.pop_back();
            worker.job = std::move(work);
            worker.wake.notify_one();
            return;
        }
        waiting_.push_back(std::move(work));
        if (workerCount_ < limits_.atOnce) started = 1;
        workerCount_ += started;
    }
    startWorkers(started);
    watchProgress();
}

/// REQUIRES: they are counted already.
void WorkerPool::startWorkers(std::size_t count) {
    for (; count > 0; --count) {
        try {
            std::thread([this] { runWorker(); }).detach();
        } catch (const std::system_error&) {
            // Out of threads for now; the next check tries again.
            const std::scoped_lock lock(mutex_);
            workerCount_ -= count;
            return;
        }
    }
}

void WorkerPool::runWorker() {
    pthread_setname_np(pthread_self(), "worker");
    const pid_t thread = ::gettid();
    poolOfThread = this;
    Worker self;
    std::unique_lock lock(mutex_);
    threads_.push_back(thread);
    while (true) {
        if (!waiting_.empty()) {
            self.job = std::move(waiting_.front());
            waiting_.pop_front();
            ++begunCount_;
        } else if (!awaitJob(self, lock)) {
            break;
        }
        lock.unlock();
        self.job();
        self.job = nullptr;
        lock.lock();
        ++endedCount_;
    }
    std::erase(threads_, thread);
    --workerCount_;
}

/// False when the worker's time is over.
bool WorkerPool::awaitJob(Worker& self, std::unique_lock<std::mutex>& lock) {
    idle_.push_back(&self);
    const auto hasJob = [&] { return static_cast<bool>(self.job); };
    if (self.wake.wait_for(lock, limits_.idleLife, hasJob)) return true;
    std::erase(idle_, &self);
    return false;
}

void WorkerPool::watchProgress() {
    {
        const std::scoped_lock lock(mutex_);
        if (isWatched_ || waiting_.empty() || room() == 0) return;
        isWatched_ = true;
        endedAtWatch_ = endedCount_;
        submittedAtWatch_ = begunCount_ + waiting_.size();
    }
    Timer::shared().runAfter(patience, [this] { growIfStuck(); });
}

void WorkerPool::growIfStuck() {
    std::vector<pid_t> threads;
    std::size_t runnable = 0;
    {
        const std::scoped_lock lock(mutex_);
        threads = threads_;
        runnable = workerCount_ - threads_.size();  // about to begin
    }
    for (auto it = threads.begin(); it != threads.end() && runnable < limits_.atOnce; ++it) {
        if (isRunnable(*it)) ++runnable;
    }
    std::size_t started = 0;
    {
        const std::scoped_lock lock(mutex_);
        isWatched_ = false;
        if (runnable < limits_.atOnce && begunCount_ < submittedAtWatch_) {
            const bool isMoving = endedCount_ > endedAtWatch_;
            started = isMoving ? 1 : std::max<std::size_t>(workerCount_, 1);
            started = std::min({started, waiting_.size(), room()});
        }
        workerCount_ += started;
    }
    startWorkers(started);
    watchProgress();
}

}  // namespace platform

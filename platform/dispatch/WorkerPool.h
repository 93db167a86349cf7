#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <vector>

#include "platform/dispatch/Queue.h"

namespace platform {

/// Where queues find threads. There is a worker for each core as soon as there is work for it.
/// While work has waited for 10 ms and fewer workers than cores are runnable, the rest being
/// blocked, more are started: twice as many each time while no work ends at all, else one. So a
/// blocked worker never starves the others, and a busy one brings no crowd. A worker that finds
/// nothing to do for a while ends. Any thread.
class WorkerPool {
  public:
    struct Limits {
        std::size_t atOnce;      ///< workers started without waiting
        std::size_t most = 512;  ///< workers, without those that wait for other work
        std::chrono::milliseconds idleLife{5000};
    };

    /// The one of the process.
    [[nodiscard]] static WorkerPool& shared();

    /// Never blocks. Work begins in the order of submission. While `most` workers are blocked
    /// outside of a Wait, nothing begins.
    void submit(Work work);

    /// While one lives, its thread waits for other work of the pool. If the thread is a worker,
    /// the pool may start another in its place, so that workers that wait never use up the pool.
    class Wait {
      public:
        Wait();
        ~Wait();
        Wait(const Wait&) = delete;
        Wait& operator=(const Wait&) = delete;

      private:
        WorkerPool* const pool_;  // null: the thread is no worker
    };

    explicit WorkerPool(Limits limits) : limits_(limits) {}
    /// A pool lives until the process ends, since nobody could know that all its work has.
    ~WorkerPool() = delete;

  private:
    /// On the stack of its thread.
    struct Worker {
        Work job;  // guarded by mutex_ while the worker is in idle_
        std::condition_variable wake;
    };

    void startWorkers(std::size_t count);
    void runWorker();
    bool awaitJob(Worker& self, std::unique_lock<std::mutex>& lock);
    void watchProgress();
    void growIfStuck();
    /// How many workers may be started. REQUIRES: the caller holds mutex_.
    [[nodiscard]] std::size_t room() const;

    const Limits limits_;

    std::mutex mutex_;
    // Guarded by mutex_.
    std::deque<Work> waiting_;   // empty while a worker is idle
    std::vector<Worker*> idle_;  // the last to come is the first to go, so that the rest can end
    std::size_t workerCount_ = 0;
    std::size_t waitCount_ = 0;     // of workers in a Wait
    std::vector<pid_t> threads_;    // of the workers that have begun
    std::uint64_t begunCount_ = 0;  // of what had to wait
    std::uint64_t endedCount_ = 0;  // of all

    // One check at a time is under way while something waits. What was when it began:
    bool isWatched_ = false;
    std::uint64_t endedAtWatch_ = 0;
    std::uint64_t submittedAtWatch_ = 0;
};

}  // namespace platform

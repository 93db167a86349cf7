#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

#include "platform/foundation/QSDate.h"

namespace host {

/// Deletes what was trashed too long ago: at its start and once a day.
class TrashKeeper {
  public:
    /// The date before which things were trashed too long ago, however wrong the wall clock was;
    /// none if nothing is known to be that old.
    using Limit = std::function<std::optional<platform::QSDate>()>;
    using Removal = std::function<void(const platform::QSDate& olderThan)>;
    using Clock = std::function<std::chrono::seconds()>;

    /// `remove` is called on a thread of the keeper's and may block.
    TrashKeeper(Limit limit, Removal remove)
        : TrashKeeper(std::move(limit), std::move(remove), sinceBoot, true) {}
    /// `clock` goes on while the machine sleeps. With `runsByItself` false, nothing happens but in
    /// step().
    TrashKeeper(Limit limit, Removal remove, Clock clock, bool runsByItself);
    /// Waits for a run that is under way.
    ~TrashKeeper();
    TrashKeeper(const TrashKeeper&) = delete;
    TrashKeeper& operator=(const TrashKeeper&) = delete;

    /// Removes, if it is time to. One thread at a time.
    void step();

  private:
    static std::chrono::seconds sinceBoot();
    void run();

    // Constant after construction.
    const Limit limit_;
    const Removal remove_;
    const Clock clock_;

    std::optional<std::chrono::seconds> last_;  // for step()

    std::mutex mutex_;
    std::condition_variable stopping_;
    bool isStopping_ = false;  // guarded by mutex_
    std::thread thread_;
};

}  // namespace host

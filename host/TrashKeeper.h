#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

#include "platform/foundation/QSDate.h"

namespace host {

/// Deletes what has lain in the trash for too long: at its start and once a day. A run is left out
/// where the wall clock went another way than the monotonic one by more than an hour since the last
/// time: it may be wrong now, or was when things were trashed.
class TrashKeeper {
  public:
    /// The two clocks; the second goes on while the machine sleeps.
    struct Clocks {
        std::function<platform::QSDate()> wall = platform::QSDate::now;
        std::function<std::chrono::seconds()> monotonic = sinceBoot;
    };
    using Removal = std::function<void(const platform::QSDate& olderThan)>;

    /// `remove` is called on a thread of the keeper's and may block.
    TrashKeeper(std::chrono::seconds age, Removal remove)
        : TrashKeeper(age, std::move(remove), Clocks(), true) {}
    /// With `runsByItself` false, nothing happens but in step().
    TrashKeeper(std::chrono::seconds age, Removal remove, Clocks clocks, bool runsByItself);
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
    const std::chrono::seconds age_;
    const Removal remove_;
    const Clocks clocks_;

    // For step().
    struct Moment {
        platform::QSDate wall;
        std::chrono::seconds monotonic;
    };
    std::optional<Moment> last_;

    std::mutex mutex_;
    std::condition_variable stopping_;
    bool isStopping_ = false;  // guarded by mutex_
    std::thread thread_;
};

}  // namespace host

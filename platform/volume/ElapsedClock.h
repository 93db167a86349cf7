#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/QSDate.h"
#include "platform/foundation/QSError.h"

namespace platform {

/// The time that has plausibly passed, whatever the wall clock shows. Within a boot the
/// boot clock counts it; between two boots the wall clock does, for at most seven days a gap.
///
/// The clock also keeps what the wall clock showed at which elapsed time. So it can name a date
/// such that nothing of the last 30 days, say, carries an earlier one, however wrong the wall clock
/// was in these days. That holds for dates from stamp().
///
/// The file at `path` belongs to the process that owns the store. A file that is missing or damaged
/// makes a clock that begins now. Thread: any. Blocks: for the disk, rarely.
class ElapsedClock {
  public:
    /// What the clock reads; tests replace it.
    struct Sources {
        std::function<QSDate()> wall = QSDate::now;
        /// The boot clock, which goes on while the machine sleeps.
        std::function<std::chrono::seconds()> sinceBoot = secondsSinceBoot;
        std::function<std::string()> boot = bootID;  ///< another text for each boot
    };

    ElapsedClock(std::string path, Sources sources);

    /// The present date, for what will be removed by its age. On disk before it returns: that the
    /// wall clock showed it now. A file that cannot be written is logged.
    [[nodiscard]] QSDate stamp();

    struct Limit {
        QSDate wall;  ///< the present date less the age
        /// An object with an earlier date is older than the age by both clocks. None if the clock
        /// began later than that.
        std::optional<QSDate> safe;
        /// The wall clock was wrong within that age, or more time passed than can be known: by
        /// more than a day.
        bool clocksDiffer = false;
    };
    [[nodiscard]] Limit limitForAge(std::chrono::seconds age);

    static std::chrono::seconds secondsSinceBoot();
    static std::string bootID();

  private:
    /// From that elapsed time on, until the next segment, the wall clock showed `wall` and what
    /// passed since. All in seconds.
    struct Segment {
        std::int64_t elapsed = 0;
        std::int64_t wall = 0;
    };

    bool read();
    [[nodiscard]] Result<void> write() const;
    /// Takes the reading into account and returns the elapsed time. REQUIRES: mutex_ is held.
    std::int64_t note(const QSDate& wall);

    // Constant after construction.
    const std::string path_;
    const Sources sources_;

    std::mutex mutex_;
    // Guarded by mutex_.
    std::string boot_;
    std::int64_t sinceBoot_ = 0;  ///< by the boot clock, when elapsed_ was reached
    std::int64_t elapsed_ = 0;
    std::vector<Segment> segments_;  ///< never empty; the first begins at 0
    std::int64_t nextWrite_ = 0;     ///< elapsed time at which the file is written again
};

}  // namespace platform

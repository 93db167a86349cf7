#pragma once

#include <atomic>
#include <chrono>
#include <string>

#include "platform/volume/ElapsedClock.h"

namespace tests {

/// The clocks of a machine that a test switches off and on, and whose wall clock it sets.
/// Other threads may read them at any time.
struct ScriptedClocks {
    static constexpr std::int64_t day = 24 * 60 * 60;
    std::atomic<std::int64_t> wall = 20'000 * day;
    std::atomic<std::int64_t> sinceBoot = 1000;
    std::atomic<int> boots = 1;

    void pass(std::int64_t seconds) {
        wall += seconds;
        sinceBoot += seconds;
    }
    /// Off for so long, and on again.
    void reboot(std::int64_t seconds) {
        wall += seconds + 10;
        sinceBoot = 10;
        ++boots;
    }
    [[nodiscard]] platform::ElapsedClock::Sources sources() {
        return {.wall =
                    [this] {
                        return platform::QSDate{wall, 0};
                    },
                .sinceBoot = [this] { return std::chrono::seconds(sinceBoot); },
                .boot = [this] { return std::to_string(boots); }};
    }
};

}  // namespace tests

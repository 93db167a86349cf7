#include <gtest/gtest.h>

#include <vector>

#include "host/TrashKeeper.h"

namespace {

using namespace std::chrono_literals;

TEST(TrashKeeper, RunsAtTheStartAndDailyUnlessTheClocksDisagree) {
    std::chrono::seconds monotonic = 1000h;
    std::chrono::seconds wall = 500'000h;
    std::vector<std::int64_t> removals;
    const auto wallClock = [&] { return platform::QSDate{wall.count(), 0}; };
    host::TrashKeeper keeper(
        30 * 24h, [&](const platform::QSDate& date) { removals.push_back(date.seconds); },
        {wallClock, [&] { return monotonic; }}, false);
    const auto pass = [&](std::chrono::seconds real, std::chrono::seconds shown) {
        monotonic += real;
        wall += shown;
        const auto before = removals.size();
        keeper.step();
        return removals.size() > before;
    };
    EXPECT_TRUE(pass(0s, 0s));
    EXPECT_EQ(removals.back(), (wall - 30 * 24h).count());
    EXPECT_FALSE(pass(0s, 0s));
    EXPECT_FALSE(pass(24h - 1s, 24h - 1s));
    EXPECT_TRUE(pass(1s, 1s));
    EXPECT_TRUE(pass(24h, 25h));        // exactly what is let pass
    EXPECT_FALSE(pass(24h, 25h + 1s));  // it was set forward
    EXPECT_FALSE(pass(10min, 10min));   // left out until the next day
    EXPECT_TRUE(pass(24h, 24h));
    EXPECT_FALSE(pass(25h, -1000h));  // it was set back
    EXPECT_TRUE(pass(240h, 240h));    // it slept for long
}

}  // namespace

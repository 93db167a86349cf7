#include <gtest/gtest.h>

#include <vector>

#include "host/documents/TrashKeeper.h"

namespace {

using namespace std::chrono_literals;

TEST(TrashKeeper, RunsAtTheStartAndDailyWhereSomethingCanBeOldEnough) {
    std::chrono::seconds clock = 1000h;
    std::optional<platform::QSDate> limit = platform::QSDate{7, 0};
    std::vector<std::int64_t> removals;
    host::TrashKeeper keeper(
        [&] { return limit; },
        [&](const platform::QSDate& date) { removals.push_back(date.seconds); },
        [&] { return clock; }, false);
    const auto pass = [&](std::chrono::seconds time) {
        clock += time;
        removals.clear();
        keeper.step();
        return removals;
    };
    const std::vector<std::int64_t> once{7};
    EXPECT_EQ(pass(0s), once);
    EXPECT_TRUE(pass(0s).empty());
    EXPECT_TRUE(pass(24h - 1s).empty());
    EXPECT_EQ(pass(1s), once);
    limit = std::nullopt;
    EXPECT_TRUE(pass(240h).empty());
}

}  // namespace

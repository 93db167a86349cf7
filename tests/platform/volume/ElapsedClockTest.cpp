#include <gtest/gtest.h>

#include <optional>

#include "tests/support/ScratchFolder.h"
#include "tests/support/ScriptedClocks.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;

/// A clock for whose storage something is trashed; each step is made by another process.
class ElapsedClockTest : public testing::Test {
  protected:
    static constexpr auto day = tests::ScriptedClocks::day;

    ElapsedClock::Limit limit() { return process().limitForAge(30 * 24h); }
    bool isRemoved() {
        const auto safe = limit().safe;
        return safe && trashed && *trashed < *safe;
    }
    void trash() { trashed = process().stamp(); }
    /// Days on which the machine is off at night, and commands run.
    void live(int days) {
        for (int i = 0; i < days; ++i) {
            machine.reboot(day / 2);
            isRemovedEarly |= isRemoved();
            machine.pass(day / 2);
            isRemovedEarly |= isRemoved();
        }
    }
    /// In the end it goes, some days late where the clock could not be trusted, and never before.
    void expectRemovedAfter(int days) {
        isRemovedEarly = false;
        live(days - 1);
        EXPECT_FALSE(isRemovedEarly);
        live(9);
        EXPECT_TRUE(isRemovedEarly);
    }
    ElapsedClock process() { return {scratch / "clock", machine.sources()}; }

    tests::ScratchFolder scratch;
    tests::ScriptedClocks machine;
    std::optional<QSDate> trashed;
    bool isRemovedEarly = false;
};

TEST_F(ElapsedClockTest, WhatWasTrashedIsKeptAsLongAsItsAge) {
    trash();
    expectRemovedAfter(30);
    trash();
    expectRemovedAfter(30);
    EXPECT_FALSE(limit().clocksDiffer);
}

TEST_F(ElapsedClockTest, NothingIsRemovedEarlyWhateverTheWallClockShows) {
    live(40);
    for (const std::int64_t wrong : {3650 * day, -machine.wall + 60, -machine.wall + 300 * day}) {
        SCOPED_TRACE(wrong);
        // Wrong since a start; for a minute, in which things are trashed; for three days.
        trash();
        machine.reboot(3600);
        machine.wall += wrong;
        EXPECT_FALSE(isRemoved());
        machine.wall -= wrong;
        expectRemovedAfter(30);
        machine.wall += wrong;
        trash();
        machine.pass(60);
        machine.wall -= wrong;
        EXPECT_FALSE(isRemoved());
        if (wrong < 0) expectRemovedAfter(30);  // else its date is still to come
        trash();
        machine.wall += wrong;
        live(3);
        EXPECT_TRUE(limit().clocksDiffer);
        machine.wall -= wrong;
        expectRemovedAfter(27);
    }
}

TEST_F(ElapsedClockTest, AClockThatBeginsIn1970AtEachStartRemovesNothing) {
    trash();
    for (int i = 0; i < 20; ++i) {
        const auto right = machine.wall.load();
        machine.reboot(0);
        machine.wall = 0;
        EXPECT_FALSE(isRemoved());
        machine.pass(60);
        machine.wall = right + 60;
        EXPECT_FALSE(isRemoved());
    }
}

TEST_F(ElapsedClockTest, ALongGapCountsForAWeek) {
    live(40);
    trash();
    machine.reboot(60 * day);
    EXPECT_FALSE(isRemoved());
    EXPECT_TRUE(limit().clocksDiffer);
    expectRemovedAfter(23);
    live(30);
    EXPECT_FALSE(limit().clocksDiffer);
}

TEST_F(ElapsedClockTest, AnUnreadableFileBeginsAnew) {
    live(40);
    trash();
    const auto whole = tests::contentOf(scratch / "clock");
    for (std::size_t length = 0; length < whole.size() - 1; ++length) {
        scratch.makeFile("clock", whole.substr(0, length));
        machine.wall += 3650 * day;
        EXPECT_FALSE(isRemoved()) << length;
        EXPECT_FALSE(limit().clocksDiffer) << length;
        machine.wall -= 3650 * day;
    }
}

TEST_F(ElapsedClockTest, AClockThatIsSetAllTheTimeStaysSmall) {
    auto clock = process();
    trashed = clock.stamp();
    for (int i = 0; i < 1200; ++i) {
        machine.pass(3);
        machine.wall += i % 2 == 0 ? 3600 : -3600;
        (void)clock.stamp();
    }
    EXPECT_LT(std::filesystem::file_size(scratch / "clock"), 1 << 16);
    EXPECT_FALSE(isRemoved());
    expectRemovedAfter(30);
}

}  // namespace

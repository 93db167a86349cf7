#include <gtest/gtest.h>

#include <memory>
#include <semaphore>
#include <vector>

#include "platform/fileprovider/QPPacer.h"
#include "tests/support/Await.h"

using namespace std::chrono_literals;

namespace platform {
namespace {

class PacerTest : public testing::Test {
  protected:
    void make(std::chrono::nanoseconds interval) {
        pacer_ = std::make_unique<QPPacer>("test.pacer", queue_, interval);
        pacer_->setEventBlock([this] {
            queue_.assertOnQueue();
            times_.push_back(std::chrono::steady_clock::now());
            fired_.release();
        });
    }
    void signalOften() {
        for (int i = 0; i < 5; ++i) pacer_->signal();
    }
    /// Whether the event comes, and so often in all.
    [[nodiscard]] bool firesFor(std::size_t count) {
        std::size_t seen = 0;
        EXPECT_TRUE(tests::await("an event", fired_));
        queue_.sync([&] { seen = times_.size(); });
        return seen == count;
    }

    SerialQueue queue_{"test.queue"};
    std::vector<std::chrono::steady_clock::time_point> times_;  // used on queue_
    std::counting_semaphore<> fired_{0};
    std::unique_ptr<QPPacer> pacer_;
};

TEST_F(PacerTest, SignalsAreAnsweredOnceAtTheEndOfTheInterval) {
    make(2ms);
    pacer_->resume();
    times_.push_back(std::chrono::steady_clock::now());
    for (std::size_t round = 2; round <= 3; ++round) {
        signalOften();
        ASSERT_TRUE(firesFor(round));
    }
    EXPECT_GE(times_[1] - times_[0], 2ms);
    EXPECT_GE(times_[2] - times_[1], 2ms);
}

TEST_F(PacerTest, AnEventMaySignalOrEndThePacerAndNoneBeginsOnceItHasEnded) {
    make(1ms);
    pacer_->setEventBlock([&] {
        times_.push_back({});
        times_.size() < 3 ? pacer_->signal() : pacer_.reset();
        fired_.release();
    });
    pacer_->resume();
    pacer_->signal();
    for (int i = 0; i < 2; ++i) ASSERT_TRUE(tests::await("an event", fired_));
    EXPECT_TRUE(firesFor(3));

    make(1ms);
    pacer_->resume();
    std::binary_semaphore go(0);
    queue_.async([&] { go.acquire(); });
    pacer_->signal();  // its event waits behind the block
    pacer_.reset();
    go.release();
    queue_.sync([this] { EXPECT_EQ(times_.size(), 3U); });
}

}  // namespace
}  // namespace platform

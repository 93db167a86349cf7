#include <gtest/gtest.h>

#include <memory>
#include <semaphore>
#include <vector>

#include "platform/fileprovider/QPPacer.h"

using namespace std::chrono_literals;

namespace platform {
namespace {

constexpr auto deadline = 60s;

class PacerTest : public testing::Test {
  protected:
    using Time = std::chrono::steady_clock::time_point;

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
    [[nodiscard]] std::size_t eventCount() {
        std::size_t count = 0;
        queue_.sync([&] { count = times_.size(); });
        return count;
    }

    SerialQueue queue_{"test.queue"};
    std::vector<Time> times_;  // used on queue_
    std::counting_semaphore<> fired_{0};
    std::unique_ptr<QPPacer> pacer_;
};

TEST_F(PacerTest, SignalsBeforeResumeAreOneAndThoseOfAnIntervalWait) {
    make(24h);
    signalOften();
    EXPECT_EQ(eventCount(), 0U);
    pacer_->resume();
    ASSERT_TRUE(fired_.try_acquire_for(deadline));
    signalOften();
    EXPECT_EQ(eventCount(), 1U);
}

TEST_F(PacerTest, LaterSignalsAreAnsweredOnceAtTheEndOfTheInterval) {
    constexpr auto interval = 30ms;
    make(interval);
    pacer_->resume();
    for (std::size_t round = 1; round <= 3; ++round) {
        signalOften();
        ASSERT_TRUE(fired_.try_acquire_for(deadline));
        EXPECT_EQ(eventCount(), round);
    }
    EXPECT_GE(times_[1] - times_[0], interval);
    EXPECT_GE(times_[2] - times_[1], interval);
}

TEST_F(PacerTest, ASignalFromTheEventLeadsToAnother) {
    make(1ms);
    pacer_->setEventBlock([&] {
        if (times_.size() < 3) pacer_->signal();
        times_.push_back({});
        fired_.release();
    });
    pacer_->resume();
    pacer_->signal();
    for (int i = 0; i < 4; ++i) ASSERT_TRUE(fired_.try_acquire_for(deadline));
    EXPECT_EQ(eventCount(), 4U);
}

TEST_F(PacerTest, NoEventBeginsOnceThePacerIsGone) {
    make(1ms);
    pacer_->resume();
    std::binary_semaphore go(0);
    queue_.async([&] { go.acquire(); });
    pacer_->signal();  // its event waits behind the block
    pacer_.reset();
    go.release();
    EXPECT_EQ(eventCount(), 0U);

    make(1ms);
    pacer_->setEventBlock([&] {
        pacer_.reset();  // from within its own event
        fired_.release();
    });
    pacer_->resume();
    pacer_->signal();
    ASSERT_TRUE(fired_.try_acquire_for(deadline));
}

}  // namespace
}  // namespace platform

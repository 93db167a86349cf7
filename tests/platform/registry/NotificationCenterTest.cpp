#include <gtest/gtest.h>

#include <latch>
#include <memory>
#include <semaphore>
#include <thread>
#include <vector>

#include "platform/registry/QSDistributedNotificationCenter.h"

using namespace std::chrono_literals;

namespace platform {
namespace {

class NotificationCenterTest : public testing::Test {
  protected:
    QSDistributedNotificationCenter center_;
    int observer_ = 0;
    int other_ = 0;
};

TEST_F(NotificationCenterTest, CallsTheObserversOfTheNameWithTheirAddress) {
    std::vector<const void*> called;
    const auto note = [&](const void* observer) { called.push_back(observer); };
    center_.addObserver(&observer_, "registered", note);
    center_.addObserver(&observer_, "unregistered", note);
    center_.addObserver(&other_, "registered", note);
    center_.post("registered");
    EXPECT_EQ(called, (std::vector<const void*>{&observer_, &other_}));
    center_.removeEveryObserver(&observer_);
    center_.post("unregistered");
    center_.post("registered");
    EXPECT_EQ(called.size(), 3U);
}

TEST_F(NotificationCenterTest, CallbacksMayChangeTheObservers) {
    int calls = 0;
    int otherCalls = 0;
    center_.addObserver(&observer_, "name", [&](const void* observer) {
        ++calls;
        center_.removeEveryObserver(observer);
        center_.removeEveryObserver(&other_);  // its turn in this very post would have come
        center_.addObserver(&observer_, "later", [&](const void*) { ++calls; });
        center_.post("later");
        center_.post("name");
    });
    center_.addObserver(&other_, "name", [&](const void*) { ++otherCalls; });
    center_.post("name");
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(otherCalls, 0);
}

TEST_F(NotificationCenterTest, RemovalWaitsForTheCallbackThatRuns) {
    std::binary_semaphore isRunning(0);
    std::binary_semaphore mayEnd(0);
    auto state = std::make_unique<int>(0);  // gone after the removal, as an observer's would be
    center_.addObserver(&observer_, "name", [&](const void*) {
        isRunning.release();
        mayEnd.acquire();
        ++*state;
    });
    std::jthread poster([&] { center_.post("name"); });
    isRunning.acquire();
    std::latch removed(1);
    std::jthread remover([&] {
        center_.removeEveryObserver(&observer_);
        state.reset();
        removed.count_down();
    });
    center_.addObserver(&other_, "other", [](const void*) {});  // the centre itself is not held up
    center_.post("other");
    EXPECT_FALSE(removed.try_wait());
    mayEnd.release();
    removed.wait();
    center_.post("name");
}

TEST_F(NotificationCenterTest, ThreadsMayPostAddAndRemoveAtWill) {
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < 3; ++thread) {
        threads.emplace_back([&] {
            for (int i = 0; i < 300; ++i) {
                auto count = std::make_unique<int>(0);
                center_.addObserver(count.get(), "name", [&count](const void*) { ++*count; });
                center_.post("name");
                center_.removeEveryObserver(count.get());
                EXPECT_GE(*count, 1);
            }
        });
    }
}

}  // namespace
}  // namespace platform

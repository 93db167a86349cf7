#include <gtest/gtest.h>

#include <latch>
#include <memory>
#include <semaphore>
#include <thread>
#include <vector>

#include "platform/registry/QSDistributedNotificationCenter.h"
#include "tests/support/Await.h"

namespace platform {
namespace {

class NotificationCenterTest : public testing::Test {
  protected:
    QSDistributedNotificationCenter center_;
    int observer_ = 0;
    int other_ = 0;
};

TEST_F(NotificationCenterTest, CallsTheObserversOfTheNameWhoMayChangeThem) {
    int third = 0;
    std::vector<const void*> called;
    const auto note = [&](const void* observer) { called.push_back(observer); };
    center_.addObserver(&observer_, "name", [&](const void* observer) {
        note(observer);
        center_.removeEveryObserver(observer);
        center_.removeEveryObserver(&other_);  // its turn in this very post would have come
        center_.addObserver(&observer_, "later", note);
        center_.post("later");
        center_.post("name");
    });
    center_.addObserver(&other_, "name", note);
    center_.addObserver(&third, "name", note);
    center_.addObserver(&third, "another", note);
    center_.post("name");
    EXPECT_EQ(called, (std::vector<const void*>{&observer_, &observer_, &third, &third}));
}

TEST_F(NotificationCenterTest, RemovalWaitsForTheCallbackThatRuns) {
    std::binary_semaphore isRunning(0);
    std::binary_semaphore mayEnd(0);
    auto state =
        std::make_unique<int>(0);  // destroyed after the removal, as an observer's would be
    center_.addObserver(&observer_, "name", [&](const void*) {
        isRunning.release();
        mayEnd.acquire();
        ++*state;
    });
    std::jthread poster([&] { center_.post("name"); });
    EXPECT_TRUE(tests::await("the callback", isRunning));
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
    EXPECT_TRUE(tests::await("the removal", removed));
    center_.post("name");
}

}  // namespace
}  // namespace platform

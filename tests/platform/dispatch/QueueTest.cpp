#include "platform/dispatch/Queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <latch>
#include <semaphore>
#include <thread>
#include <vector>

#include "platform/dispatch/WorkerPool.h"
#include "tests/support/Await.h"

using namespace std::chrono_literals;
using tests::await;

namespace platform {
namespace {

TEST(SerialQueueTest, BlocksOfManyProducersRunOneAtATimeAndInOrder) {
    const SerialQueue queue("order");
    constexpr int producers = 4;
    constexpr int blocks = 500;
    std::vector<std::vector<int>> seen(producers);  // used on the queue
    int running = 0;                                // the same; never above 1
    std::vector<std::jthread> threads;
    for (int producer = 0; producer < producers; ++producer) {
        threads.emplace_back([&, producer] {
            auto& own = seen[static_cast<std::size_t>(producer)];
            for (int block = 0; block < blocks; ++block) {
                queue.async([&, block] {
                    queue.assertOnQueue();
                    EXPECT_EQ(++running, 1);
                    own.push_back(block);
                    --running;
                });
                if (block % 2 == 0) continue;
                std::size_t waitedFor = 0;
                queue.sync([&] { waitedFor = own.size(); });
                EXPECT_EQ(waitedFor, block + 1);
            }
        });
    }
    threads.clear();
    for (const auto& order : seen) EXPECT_TRUE(std::ranges::is_sorted(order));
}

TEST(SerialQueueTest, BlocksOutliveTheHandleAndAreDestroyedOnTheQueue) {
    struct Probe {
        std::function<void()> atEnd;
        ~Probe() { atEnd(); }
    };
    std::binary_semaphore go(0);
    std::binary_semaphore destroyed(0);
    {
        const SerialQueue queue("handle");
        queue.async([&] { go.acquire(); });
        auto probe = std::make_unique<Probe>([&destroyed, queue] {
            queue.assertOnQueue();
            destroyed.release();
        });
        queue.async([probe = std::move(probe)] {});
    }
    go.release();
    EXPECT_TRUE(await("the destruction of the block", destroyed));
}

TEST(SerialQueueDeathTest, MisuseIsFatalNotADeadlock) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const SerialQueue a("a");
    const SerialQueue b("b");
    EXPECT_DEATH(a.assertOnQueue(), "not on the queue \"a\"");
    EXPECT_DEATH(a.sync([&] { a.sync([] {}); }), "already on the queue \"a\"");
    // Through another queue: once where its block runs on the caller's thread, once on a worker.
    EXPECT_DEATH(a.sync([&] { b.sync([&] { a.sync([] {}); }); }), "already on the queue \"a\"");
    EXPECT_DEATH(
        {
            std::binary_semaphore go(0);
            b.async([&] { go.acquire(); });
            a.async([&] { b.sync([&] { a.sync([] {}); }); });
            b.async([] {});
            go.release();
            std::latch(1).wait();
        },
        "already on the queue \"a\"");
}

TEST(WorkerPoolTest, BlockedQueuesDoNotStarveOthers) {
    // Each block waits until all of them run at once, so too few workers means no end.
    constexpr int queues = 100;
    std::latch allRun(queues);
    std::latch done(queues + 1);
    for (int i = 0; i < queues; ++i) {
        SerialQueue("blocked").async([&] {
            allRun.arrive_and_wait();
            done.count_down();
        });
    }
    dispatchConcurrently([&] { done.count_down(); });
    ASSERT_TRUE(await("a worker for each queue that blocks", done));
}

TEST(WorkerPoolTest, WorkersThatWaitForOtherWorkDoNotUseUpThePool) {
    static WorkerPool* const pool = new WorkerPool({.atOnce = 2, .most = 4});
    constexpr int waiters = 8;
    std::latch awaited(1);
    std::latch done(waiters);
    for (int i = 0; i < waiters; ++i) {
        pool->submit([&] {
            {
                const WorkerPool::Wait wait;
                awaited.wait();
            }
            done.count_down();
        });
    }
    pool->submit([&] { awaited.count_down(); });
    ASSERT_TRUE(await("the work that all workers wait for", done));
}

TEST(WorkerPoolTest, IdleWorkersEndAndComeBack) {
    static WorkerPool* const pool = new WorkerPool({.atOnce = 2, .most = 8, .idleLife = 20ms});
    static std::counting_semaphore<> ended(0);
    struct EndOfThread {
        ~EndOfThread() { ended.release(); }
    };
    for (int round = 0; round < 2; ++round) {
        std::latch together(6);
        for (int i = 0; i < 6; ++i) {
            pool->submit([&together] {
                static thread_local EndOfThread end;
                static_cast<void>(end);
                together.arrive_and_wait();
            });
        }
        for (int i = 0; i < 6; ++i) ASSERT_TRUE(await("the end of an idle worker", ended)) << round;
    }
}

}  // namespace
}  // namespace platform

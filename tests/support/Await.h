#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <latch>
#include <semaphore>
#include <string_view>
#include <thread>

namespace tests {

/// Longer than anything takes that works, on any machine.
inline constexpr std::chrono::seconds longestWait{60};

/// Waits until the condition holds, and fails with what did not come: ASSERT_TRUE(await("the
/// refresh has ended", [&] { return refreshes == 2; })). The condition is asked every millisecond.
template <typename Condition>
[[nodiscard]] testing::AssertionResult await(std::string_view what, Condition isSo) {
    const auto deadline = std::chrono::steady_clock::now() + longestWait;
    while (!isSo()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return testing::AssertionFailure() << "never came: " << what;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return testing::AssertionSuccess();
}

template <std::ptrdiff_t Most>
[[nodiscard]] testing::AssertionResult await(std::string_view what,
                                             std::counting_semaphore<Most>& semaphore) {
    return await(what, [&] { return semaphore.try_acquire(); });
}

[[nodiscard]] inline testing::AssertionResult await(std::string_view what, std::latch& latch) {
    return await(what, [&] { return latch.try_wait(); });
}

template <typename Value>
[[nodiscard]] testing::AssertionResult await(std::string_view what,
                                             const std::future<Value>& future) {
    return await(what, [&] {
        return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    });
}

}  // namespace tests

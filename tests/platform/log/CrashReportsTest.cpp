#include "platform/log/CrashReports.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <atomic>
#include <set>
#include <thread>

#include "tests/support/ScratchFolder.h"

namespace platform {
namespace {

using testing::AllOf;
using testing::HasSubstr;

class CrashReportsTest : public testing::Test {
  protected:
    [[nodiscard]] CrashReports reports() const {
        return CrashReports(folder_, [this] { return QSDate{now_, 0}; });
    }
    [[nodiscard]] std::set<std::string> names() const {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
            names.insert(entry.path().filename());
        }
        return names;
    }

    tests::ScratchFolder scratch_;
    std::string folder_ = scratch_ / "state/crashes";
    std::atomic<std::int64_t> now_ = 1'769'850'900;  // 2026-01-31T09:15:00Z
};

TEST_F(CrashReportsTest, ReportHoldsMessageCodeAndStack) {
    ASSERT_TRUE(reports().simulateCrash(5, "event 12 timed out"));
    struct stat status;
    ASSERT_EQ(::stat(folder_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700U);
    const auto all = names();
    ASSERT_EQ(all.size(), 1U);
    EXPECT_THAT(*all.begin(), testing::StartsWith("crash-2026-01-31T09:15:00Z-"));
    EXPECT_THAT(tests::contentOf(folder_ + "/" + *all.begin()),
                AllOf(HasSubstr("Message: event 12 timed out\n"), HasSubstr("Exception code: 5\n"),
                      HasSubstr("test_platform_log")));
}

TEST_F(CrashReportsTest, OneReportAnHourOfEachKindAmongAllReporters) {
    ASSERT_TRUE(reports().simulateCrash(5, "event 1 timed out"));
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            EXPECT_TRUE(reports().simulateCrash(5, "event " + std::to_string(i) + " timed out"));
            EXPECT_TRUE(reports().simulateCrash(5, "another kind"));
        });
    }
    threads.clear();
    EXPECT_EQ(names().size(), 2U);
    // Reports of the future silence nothing.
    for (const auto& [passed, count] : {std::pair{3599, 2U}, {1, 3U}, {-100'000, 4U}}) {
        now_ += passed;
        ASSERT_TRUE(reports().simulateCrash(5, "event 99 timed out"));
        EXPECT_EQ(names().size(), count) << passed;
    }
}

TEST_F(CrashReportsTest, KeepsTheTwentyNewestAndForeignFiles) {
    scratch_.makeFile("state/crashes/crash-notes.txt");
    scratch_.makeFile("state/crashes/.crash-unfinished", "what a killed process left, quite long");
    for (int i = 0; i < 25; ++i, ++now_) {
        ASSERT_TRUE(reports().simulateCrash(5, std::string(static_cast<std::size_t>(i), 'x')));
    }
    const auto all = names();
    EXPECT_EQ(all.size(), 21U);
    EXPECT_TRUE(all.contains("crash-notes.txt"));
    EXPECT_THAT(*all.begin(), testing::StartsWith("crash-2026-01-31T09:15:05Z-"));
}

}  // namespace
}  // namespace platform

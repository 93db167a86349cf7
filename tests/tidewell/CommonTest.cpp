#include <gmock/gmock.h>

#include <set>
#include <thread>

#include "tests/support/InstalledPlatform.h"
#include "tidewell/common/Logging.h"
#include "tidewell/common/Utilities.h"

namespace tidewell {
namespace {

using testing::SizeIs;

class CommonTest : public tests::InstalledPlatform {};

TEST_F(CommonTest, SectionsAreNumberedOnceAndTextIsVerbatim) {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] {
            for (int k = 0; k < 50; ++k) const LogSection section("100%s \"title\"");
        });
    }
    threads.clear();
    const auto openings = logged(LogLevel::Debug, "┏");
    EXPECT_THAT(openings, testing::Each(testing::EndsWith(" 100%s \"title\"")));
    EXPECT_THAT(std::set(openings.begin(), openings.end()), SizeIs(200));
    EXPECT_THAT(logged(LogLevel::Debug, "[DEBUG] ┗"), SizeIs(200));
}

TEST_F(CommonTest, OnlyWhatIsWrongIsLoggedAsAnError) {
    (void)file("a");
    EXPECT_FALSE(initWithValueOfXattr("com.quenby.x", url("a")));
    EXPECT_FALSE(initWithValueOfXattr("com.quenby.x", url("missing")));
    EXPECT_FALSE(dataResource(url("a"), QSResourceKey::ContentModificationDate));
    EXPECT_THAT(logged(LogLevel::Error, ""), testing::IsEmpty());
    EXPECT_FALSE(setOrRemoveXattr(-1, "com.quenby.x", QSData{1}));
    EXPECT_FALSE(stringResource(url("missing"), QSResourceKey::Name));
    EXPECT_THAT(logged(LogLevel::Error, ""), SizeIs(2));
}

}  // namespace
}  // namespace tidewell

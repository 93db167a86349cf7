#include <gmock/gmock.h>

#include <set>
#include <thread>

#include "tests/support/InstalledPlatform.h"
#include "tidewell/applibraries/TWPAppLibraryManager.h"
#include "tidewell/common/Logging.h"
#include "tidewell/common/Utilities.h"

namespace tidewell {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
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
    EXPECT_THAT(openings, Each(testing::EndsWith(" 100%s \"title\"")));
    EXPECT_THAT(std::set(openings.begin(), openings.end()), SizeIs(200));
    EXPECT_THAT(logged(LogLevel::Debug, "[DEBUG] ┗"), SizeIs(200));
}

TEST_F(CommonTest, ProperURL) {
    const std::pair<const char*, const char*> cases[] = {{"/var/mobile/x", "/private/var/mobile/x"},
                                                         {"/private/var/x", "/private/var/x"},
                                                         {"/Users/x", "/Users/x"},
                                                         {"/variable", "/private/variable"},
                                                         {"/var", "/private/var"}};
    for (const auto& [given, expected] : cases) {
        EXPECT_EQ(properURL(QSURL::fileURLWithPath(given)).path(), expected);
    }
}

TEST_F(CommonTest, OnlyWhatIsWrongIsLoggedAsAnError) {
    (void)file("a");
    EXPECT_FALSE(initWithValueOfXattr("com.quenby.x", url("a")));
    EXPECT_FALSE(initWithValueOfXattr("com.quenby.x", url("missing")));
    EXPECT_FALSE(dataResource(url("a"), QSResourceKey::ContentModificationDate));
    EXPECT_THAT(logged(LogLevel::Error, ""), IsEmpty());
    EXPECT_FALSE(setOrRemoveXattr(-1, "com.quenby.x", QSData{1}));
    EXPECT_FALSE(stringResource(url("missing"), QSResourceKey::Name));
    EXPECT_THAT(logged(LogLevel::Error, ""), SizeIs(2));
}

TEST_F(CommonTest, RootTableAnswersForRootContainerAndInside) {
    const auto container = QSURL::fileURLWithPath("/private/var/tidewell/Containers/org.a");
    const auto root = container.URLByAppendingPathComponent("Documents");
    const auto bundle =
        std::make_shared<const QLBundleProxy>(QLBundleProxy{"org.a", container, {}});
    EXPECT_THAT(TWPAppLibraryManager::rootURLsForAppLibraries(), IsEmpty());
    EXPECT_FALSE(proxyAt(root));
    AppLibraryRootTable::shared().replace({{root, bundle}});
    EXPECT_THAT(TWPAppLibraryManager::rootURLsForAppLibraries(), ElementsAre(root));
    EXPECT_EQ(proxyAt(root), bundle);
    EXPECT_EQ(proxyAt(container), bundle);
    EXPECT_FALSE(proxyAt(root.URLByAppendingPathComponent("x")));
    EXPECT_EQ(proxyWithContaining(root.URLByAppendingPathComponent("x")), bundle);
    EXPECT_FALSE(proxyWithContaining(QSURL::fileURLWithPath(container.path() + "2/x")));
    AppLibraryRootTable::shared().replace({});
}

}  // namespace
}  // namespace tidewell

#include <gmock/gmock.h>

#include <fcntl.h>
#include <set>
#include <thread>

#include "platform/files/FileDescriptor.h"
#include "tests/support/InstalledPlatform.h"
#include "tidewell/applibraries/TWPAppLibraryManager.h"
#include "tidewell/common/Logging.h"
#include "tidewell/common/Utilities.h"

namespace tidewell {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class CommonTest : public tests::InstalledPlatform {};

TEST_F(CommonTest, SectionsAreNumberedOnceAndTextIsVerbatim) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] {
            for (int k = 0; k < 50; ++k) const LogSection section("100%s \"title\"");
        });
    }
    for (auto& thread : threads) thread.join();
    std::set<std::string> openings;
    for (auto& line : logged(LogLevel::Debug, "┏")) {
        EXPECT_THAT(line, testing::EndsWith(" 100%s \"title\""));
        EXPECT_TRUE(openings.insert(line).second) << line;
    }
    EXPECT_THAT(openings, SizeIs(200));
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

TEST_F(CommonTest, ErrorConstructors) {
    errno = ENOENT;
    EXPECT_EQ(errorWithPOSIXCode(5).code, ENOENT);
    EXPECT_EQ(errorFileWriteNoPermission().code, 513);
    EXPECT_THAT(errorFileWriteNoPermission().userInfo, IsEmpty());
}

TEST_F(CommonTest, AttributesLogOnlyWhatIsWrong) {
    const auto path = file("a");
    EXPECT_FALSE(initWithValueOfXattr("com.quenby.x", url("a")));
    EXPECT_THAT(logged(LogLevel::Error, ""), IsEmpty());
    EXPECT_FALSE(initWithValueOfXattr("com.quenby.x", url("missing")));
    EXPECT_THAT(logged(LogLevel::Debug, "can't get xattr com.quenby.x; "), SizeIs(1));
    EXPECT_THAT(logged(LogLevel::Error, ""), IsEmpty());

    const FileDescriptor fd(open(path.c_str(), O_RDWR));
    EXPECT_TRUE(setOrRemoveXattr(fd.get(), "com.quenby.x", std::nullopt));
    EXPECT_TRUE(setOrRemoveXattr(fd.get(), "com.quenby.x", QSData()));
    EXPECT_EQ(initWithValueOfXattr("com.quenby.x", url("a")), QSData());
    EXPECT_FALSE(setOrRemoveXattr(-1, "com.quenby.x", QSData{1}));
    EXPECT_THAT(logged(LogLevel::Error, "can't set xattr \"com.quenby.x\"; "), SizeIs(1));
}

TEST_F(CommonTest, ResourceValuesByType) {
    (void)file("a");
    EXPECT_TRUE(dateResource(url("a"), QSResourceKey::ContentModificationDate));
    EXPECT_FALSE(dataResource(url("a"), QSResourceKey::ContentModificationDate));
    EXPECT_EQ(numberResource(url("a"), QSResourceKey::FileSize), 1u);
    EXPECT_THAT(logged(LogLevel::Error, ""), IsEmpty());
    EXPECT_FALSE(stringResource(url("missing"), QSResourceKey::Name));
    EXPECT_THAT(logged(LogLevel::Error, "can't get resource \"QSURLNameKey\" for "), SizeIs(1));
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
    EXPECT_FALSE(proxyAt(root));
}

}  // namespace
}  // namespace tidewell

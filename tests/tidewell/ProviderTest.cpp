#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <thread>

#include "tests/tidewell/MutationsFixture.h"
#include "tests/tidewell/Observers.h"
#include "tidewell/common/LocalFileProviderError.h"

namespace tidewell {
namespace {

using testing::SizeIs;

using ProviderTest = tests::MutationsFixture;

TEST_F(ProviderTest, UnknownIdentifiersAreAnsweredNotRaised) {
    for (const auto* identifier :
         {"did=4000000000", "did=99999999999999999999", "did=", "fid=18446744073709551615", "xid=5",
          "#", "#org.none", "", "did=1=2", "nonsense"}) {
        log->clear();
        EXPECT_FALSE(provider->URLForItemWithPersistentIdentifier(identifier)) << identifier;
        EXPECT_THAT(logged(LogLevel::Error, "can't find URL matching identifier "), SizeIs(1));
        EXPECT_THAT(logged(LogLevel::Error, "item lookup failed"), SizeIs(0));
        const auto item = provider->itemForIdentifier(identifier);
        ASSERT_FALSE(item);
        EXPECT_EQ(item.error(), makeError(LocalFileProviderError::itemLookupFailed));
        EXPECT_THAT(logged(LogLevel::Error,
                           "item lookup failed for identifier \"" + std::string(identifier) + "\""),
                    SizeIs(1));
        const auto enumerator = provider->enumeratorForContainerItemIdentifier(identifier);
        ASSERT_FALSE(enumerator);
        EXPECT_EQ(enumerator.error(),
                  fileProviderErrorForNonExistentItemWithIdentifier(identifier));
    }
}

TEST_F(ProviderTest, TemporaryFolderIsMadeOnDemandOrLogged) {
    const std::string identifier(QSFileProviderTemporaryLocalFolderItemIdentifier);
    EXPECT_TRUE(provider->itemForIdentifier(identifier));
    EXPECT_TRUE(provider->itemForIdentifier(identifier));
    EXPECT_TRUE(std::filesystem::is_directory(storage() / ".TemporaryLocalFolder"));
    std::filesystem::remove(storage() / ".TemporaryLocalFolder");
    (void)file(".TemporaryLocalFolder");
    EXPECT_FALSE(provider->itemForIdentifier(identifier));
    EXPECT_THAT(logged(LogLevel::Error, "can't create temporary directory; "), SizeIs(1));
}

TEST_F(ProviderTest, AFolderThatMovesAllTheTimeIsThere) {
    const auto kept = folder("top/kept");
    const auto identifier =
        provider->persistentIdentifierForItemAtURL(url("top/kept")).value_or("none");
    std::atomic<int> looks = 0;
    // One move beside each look; the last ones bring everything back.
    std::jthread mover([&] {
        const std::array<std::pair<std::string, std::string>, 4> moves{{{"top/kept", "in/kept"},
                                                                        {"in", "moved"},
                                                                        {"moved/kept", "top/kept"},
                                                                        {"moved", "in"}}};
        for (int done = 0; looks >= 0 || done % 4 != 0; ++done) {
            const auto& [from, to] = moves[static_cast<std::size_t>(done) % 4];
            std::filesystem::rename(storage() / from, storage() / to);
            looks.wait(done);
        }
    });
    std::optional<QSError> miss;
    for (int i = 0; i < 4000 && !miss; ++i) {
        looks = i + 1;
        looks.notify_one();
        log->clear();
        const auto item = provider->itemForIdentifier(identifier);
        if (!item && item.error().code != EBUSY) miss = item.error();
        const auto enumerator = provider->enumeratorForContainerItemIdentifier(identifier);
        if (enumerator) {
            const auto error = tests::onePage(**enumerator)->error;
            // It may have moved at the wrong moment: begin again.
            if (error && *error != syncAnchorExpiredError()) miss = error;
            (*enumerator)->invalidate();
        }
        if (!enumerator && enumerator.error().code != EBUSY) miss = enumerator.error();
    }
    looks = -1;
    looks.notify_one();
    mover.join();
    EXPECT_FALSE(miss) << miss->description();
    std::filesystem::remove(kept);
    const auto item = provider->itemForIdentifier(identifier);
    ASSERT_FALSE(item);
    EXPECT_EQ(item.error(), makeError(LocalFileProviderError::itemLookupFailed));
}

}  // namespace
}  // namespace tidewell

#include <gmock/gmock.h>

#include "tests/tidewell/MutationsFixture.h"
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

}  // namespace
}  // namespace tidewell

#include <gmock/gmock.h>

#include <thread>

#include "tests/tidewell/MutationsFixture.h"
#include "tests/tidewell/Observers.h"
#include "tidewell/common/LocalFileProviderError.h"
#include "tidewell/fs/FSChangeToken.h"

// Of <sanitizer/allocator_interface.h>, which GCC does not install.
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();

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

#ifdef __SANITIZE_ADDRESS__
TEST_F(ProviderTest, EnumeratorsLeaveNothingBehind) {
    const auto start = installed->volume().currentEventID();
    (void)file("d/a");
    const auto ofFolder = id("d");
    ASSERT_TRUE(installed->volume().waitUntilSettled());
    const auto enumerateOften = [&] {
        for (int i = 0; i < 1000; ++i) {
            const auto enumerator = provider->enumeratorForContainerItemIdentifier(
                i % 2 == 0 ? std::string(QSFileProviderWorkingSetContainerItemIdentifier)
                           : ofFolder);
            std::promise<QSFileProviderSyncAnchor> present;
            (*enumerator)->currentSyncAnchorWithCompletionHandler([&](auto anchor) {
                present.set_value(*anchor);
            });
            const int kind = i / 2 % 3;  // from before the file, of the future, garbage
            auto token = FSChangeToken::fromData(present.get_future().get()).value();
            token.streamEventID = kind == 1 ? UINT64_MAX : start;
            auto anchor = token.data();
            if (kind == 2) anchor.pop_back();
            const auto collector = std::make_shared<tests::ChangeCollector>();
            (*enumerator)->enumerateChangesForObserver(collector, anchor);
            collector->end.get_future().wait();
            EXPECT_EQ(collector->error.has_value(), kind != 0);
            EXPECT_EQ(collector->updated.empty(), kind != 0);
            (*enumerator)->invalidate();
            log->clear();
        }
    };
    enumerateOften();  // what is kept once
    const auto before = __sanitizer_get_current_allocated_bytes();
    enumerateOften();
    // Readers end on their own queues.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (__sanitizer_get_current_allocated_bytes() > before + 8192) {
        ASSERT_LT(std::chrono::steady_clock::now(), deadline);
        std::this_thread::yield();
    }
}
#endif

}  // namespace
}  // namespace tidewell

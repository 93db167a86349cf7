#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/fs.h>
#include <sys/ioctl.h>

#include "platform/fileprovider/QPTag.h"
#include "platform/fileprovider/QSFileProviderError.h"
#include "platform/files/FileDescriptor.h"
#include "platform/foundation/QSKeyedArchiver.h"
#include "tests/support/InstalledPlatform.h"
#include "tidewell/items/LocalItem.h"
#include "tidewell/provider/LocalFileProvider.h"

namespace tidewell {
namespace {

class UserMetadataTest : public tests::InstalledPlatform {
  protected:
    ~UserMetadataTest() override {
        provider.reset();
        mainQueue().sync([] {});
    }

    std::string identifierOf(const std::string& below) {
        return provider->persistentIdentifierForItemAtURL(url(below)).value();
    }
    std::optional<QSData> kept(const std::string& below, std::string_view name) {
        return installed->files().extendedAttribute(url(below), name).value();
    }
    /// What the operation completes with; it has to do so before it returns.
    template <typename Operation>
    Result<ItemRef> answerTo(Operation&& operation) {
        std::optional<Result<ItemRef>> answer;
        operation([&](Result<ItemRef> item) { answer = std::move(item); });
        return answer.value();
    }
    Result<ItemRef> use(const std::string& item, std::optional<QSDate> when) {
        return answerTo([&](auto done) { provider->setLastUsedDate(when, item, done); });
    }
    Result<ItemRef> tag(const std::string& item, const std::optional<QSData>& data) {
        return answerTo([&](auto done) { provider->setTagData(data, item, done); });
    }
    Result<ItemRef> rank(const std::string& item, std::optional<std::uint64_t> value) {
        return answerTo([&](auto done) { provider->setFavoriteRank(value, item, done); });
    }

    static constexpr QSDate date{1'700'000'000, 0};
    const QSData red = QPGetTagsDataForTags({{"red", 3}, {"", 0}, {"blau", 0}});
    std::shared_ptr<LocalFileProvider> provider = LocalFileProvider::init();
};

TEST_F(UserMetadataTest, ValuesAreKeptAndClearedAsTheFormatSays) {
    (void)file("a");
    (void)folder("d");
    for (const auto* name : {"a", "d", ""}) {
        const auto item = identifierOf(name);
        EXPECT_EQ(use(item, date).value()->lastUsedDate(), date);
        EXPECT_EQ(rank(item, ~0ULL).value()->favoriteRank(), ~0ULL);
        EXPECT_EQ(QPGetTagsForTagsData(*tag(item, red).value()->tagData()),
                  (std::vector<QPTag>{{"red", 0}, {"", 0}, {"blau", 0}}));
        EXPECT_EQ(kept(name, LocalItem::xattrLastUsedDateName()),
                  archivedDataWithRootObject(date).value());
        EXPECT_EQ(kept(name, LocalItem::xattrFavoriteRankName()),
                  archivedDataWithRootObject(~0ULL).value());

        EXPECT_EQ(use(item, {}).value()->lastUsedDate(), std::nullopt);
        EXPECT_EQ(rank(item, {}).value()->favoriteRank(), std::nullopt);
        EXPECT_EQ(rank(item, {}).value()->favoriteRank(), std::nullopt) << "cleared again";
        EXPECT_EQ(kept(name, LocalItem::xattrLastUsedDateName()), std::nullopt);
        EXPECT_EQ(kept(name, LocalItem::xattrFavoriteRankName()), std::nullopt);
        for (const auto& none : {std::optional<QSData>(), std::optional(dataFromString("no tags")),
                                 std::optional(QPGetTagsDataForTags({}))}) {
            ASSERT_TRUE(tag(item, red));
            EXPECT_EQ(tag(item, none).value()->tagData(), QPGetTagsDataForTags({}));
            EXPECT_EQ(kept(name, LocalItem::xattrTagDataName()),
                      archivedDataWithRootObject(QSPropertyList::Array{}).value());
        }
    }
    EXPECT_THAT(logged(LogLevel::Error, "xattr"), testing::IsEmpty());
}

TEST_F(UserMetadataTest, WhatCannotBeKeptFailsButForTheDate) {
    (void)file("a");
    std::filesystem::create_symlink("a", storage() / "link");
    const auto item = identifierOf("a");
    const auto link = identifierOf("link");
    const auto tooLarge = QPGetTagsDataForTags({{std::string(100'000, 'x'), 0}});
    ASSERT_TRUE(tag(item, red));
    EXPECT_EQ(tag(item, tooLarge).error().code, E2BIG);
    EXPECT_EQ(provider->itemForIdentifier(item).value()->tagData(),
              tag(item, red).value()->tagData());

    EXPECT_EQ(rank(link, 1).error().code, EOPNOTSUPP);
    EXPECT_EQ(use(link, date).value()->lastUsedDate(), std::nullopt);
    EXPECT_EQ(use("did=4000000", date).error(),
              fileProviderErrorForNonExistentItemWithIdentifier("did=4000000"));
    EXPECT_EQ(kept("a", LocalItem::xattrFavoriteRankName()), std::nullopt);

    const FileDescriptor fd(open((storage() / "a").c_str(), O_RDONLY));
    int flags = FS_IMMUTABLE_FL;
    if (ioctl(fd.get(), FS_IOC_SETFLAGS, &flags) != 0) GTEST_SKIP() << "needs root and ext4";
    EXPECT_EQ(rank(item, 1).error().code, EPERM);
    EXPECT_EQ(use(item, date).value()->lastUsedDate(), std::nullopt);
    flags = 0;
    EXPECT_EQ(ioctl(fd.get(), FS_IOC_SETFLAGS, &flags), 0);
}

TEST_F(UserMetadataTest, NothingIsWrittenToWhatTookTheNameMeanwhile) {
    (void)file("a");
    const auto meant = url("a");
    ASSERT_TRUE(installed->files().attributes(meant));
    std::filesystem::rename(storage() / "a", storage() / "b");
    (void)file("a");
    EXPECT_EQ(installed->files().openForExtendedAttributes(meant).error().code, ESTALE);
    EXPECT_TRUE(installed->files().openForExtendedAttributes(url("a")));
}

}  // namespace
}  // namespace tidewell

#include <gmock/gmock.h>

#include "platform/fileprovider/QPTag.h"
#include "platform/foundation/QSKeyedArchiver.h"
#include "tests/tidewell/MutationsFixture.h"
#include "tidewell/items/LocalItem.h"

namespace tidewell {
namespace {

class UserMetadataTest : public tests::MutationsFixture {
  protected:
    std::optional<QSData> kept(const std::string& below, std::string_view name) {
        return installed->files().extendedAttribute(url(below), name).value();
    }
    Result<ItemRef> use(const std::string& item, std::optional<QSDate> when) {
        return waitFor([&](auto done) { provider->setLastUsedDate(when, item, done); });
    }
    Result<ItemRef> tag(const std::string& item, const std::optional<QSData>& data) {
        return waitFor([&](auto done) { provider->setTagData(data, item, done); });
    }
    Result<ItemRef> rank(const std::string& item, std::optional<std::uint64_t> value) {
        return waitFor([&](auto done) { provider->setFavoriteRank(value, item, done); });
    }

    static constexpr QSDate date{1'700'000'000, 0};
    const QSData red = QPGetTagsDataForTags({{"red", 3}, {"", 0}, {"blau", 0}});
};

TEST_F(UserMetadataTest, ValuesAreKeptAndClearedAsTheFormatSays) {
    (void)file("a");
    for (const auto* name : {"a", "in", ""}) {
        const auto item = id(name);
        EXPECT_EQ(use(item, date).value()->lastUsedDate(), date);
        EXPECT_EQ(rank(item, ~0ULL).value()->favoriteRank(), ~0ULL);
        EXPECT_EQ(QPGetTagsFromTagsData(*tag(item, red).value()->tagData()),
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
    EXPECT_EQ(QPGetTagsFromTagsData(QPGetTagsDataForTags({{"\xFF", 1}, {"a", 2}, {"b", 8}})),
              (std::vector<QPTag>{{"a", 2}}))
        << "of well-formed text, with a colour that exists";
}

TEST_F(UserMetadataTest, WhatCannotBeKeptFailsButForTheDate) {
    (void)file("a");
    std::filesystem::create_symlink("a", storage() / "link");
    const auto item = id("a");
    const auto link = id("link");
    const auto tooLarge = QPGetTagsDataForTags({{std::string(100'000, 'x'), 0}});
    ASSERT_TRUE(tag(item, red));
    EXPECT_EQ(tag(item, tooLarge).error().code, E2BIG);
    EXPECT_EQ(provider->itemForIdentifier(item).value()->tagData(),
              tag(item, red).value()->tagData());

    EXPECT_EQ(rank(link, 1).error().code, EOPNOTSUPP);
    EXPECT_TRUE(rank(link, std::nullopt)) << "it has none to remove";
    EXPECT_EQ(use(link, date).value()->lastUsedDate(), std::nullopt);
    EXPECT_EQ(use("did=4000000", date).error(),
              fileProviderErrorForNonExistentItemWithIdentifier("did=4000000"));
    EXPECT_EQ(kept("a", LocalItem::xattrFavoriteRankName()), std::nullopt);
}

TEST_F(UserMetadataTest, NothingIsWrittenToAnotherObjectAtTheName) {
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

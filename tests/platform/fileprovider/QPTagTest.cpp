#include "platform/fileprovider/QPTag.h"

#include <gtest/gtest.h>

#include "platform/foundation/QSPropertyList.h"

namespace platform {
namespace {

using List = QSPropertyList::Array;
using Map = QSPropertyList::Dictionary;

TEST(QPTag, ListsComeBackFromTheirBytes) {
    for (const auto& tags : std::vector<std::vector<QPTag>>{
             {}, {{"Work", 0}}, {{"", 7}, {"\xF0\x9F\x8C\x8A", 1}, {"Work", 0}, {"Work", 0}}}) {
        EXPECT_EQ(QPGetTagsForTagsData(QPGetTagsDataForTags(tags)), tags);
    }
    EXPECT_EQ(QPGetTagsForTagsData(QPGetTagsDataForTags({{"\xFF", 1}, {"a", 2}, {"b", 8}})),
              (std::vector<QPTag>{{"a", 2}}));
}

TEST(QPTag, RefusesWhatIsNoListOfTags) {
    for (const QSPropertyList& list :
         List{Map{}, List{"Work"}, List{Map{{"label", "a"}}}, List{Map{{"color", 1}}},
              List{Map{{"label", 1}, {"color", 1}}}, List{Map{{"label", "a"}, {"color", "1"}}},
              List{Map{{"label", "a"}, {"color", 8}}}, List{Map{{"label", "a"}, {"color", -1}}},
              List{Map{{"label", "a"}, {"color", true}}},
              List{Map{{"label", "a"}, {"color", 1}}, 1}}) {
        EXPECT_EQ(QPGetTagsForTagsData(binaryData(list).value()), std::nullopt);
    }
    EXPECT_EQ(QPGetTagsForTagsData({}), std::nullopt);
    EXPECT_EQ(QPGetTagsForTagsData(dataFromString("<plist><array/></plist>")), std::nullopt);
}

}  // namespace
}  // namespace platform

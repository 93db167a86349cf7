#include <gtest/gtest.h>

#include <limits>

#include "platform/foundation/QSKeyedArchiver.h"
#include "platform/foundation/QSKeyedUnarchiver.h"

namespace platform {
namespace {

using List = QSPropertyList::Array;
using Map = QSPropertyList::Dictionary;
using UID = QSPropertyList::UID;
using enum ArchiveClass;

constexpr auto allClasses = {Date, String, Number, Array, Dictionary, Data};
constexpr ArchiveClasses anyClass = {Date, String, Number, Array, Dictionary, Data};

TEST(QSKeyedArchive, RootsComeBackWhereTheirClassesAreAllowed) {
    struct Case {
        QSPropertyList root;
        ArchiveClasses needed;
        bool isOneClass = false;
    };
    const std::vector<Case> cases = {
        {"Report", {String}, true},
        {"$null", {String}, true},
        {std::numeric_limits<std::uint64_t>::max(), {Number}, true},
        {-1, {Number}, true},
        {2.5, {Number}, true},
        {true, {Number}, true},
        {QSDate{978'307'200 + 86'400, 500'000'000}, {Date}, true},
        {QSData{1, 2}, {Data}, true},
        {List{}, {Array}, true},
        {List{"red", "red", "gr\xC3\xBCn"}, {Array, String}},
        {Map{}, {Dictionary}, true},
        {Map{{"versionToken", 3U}, {"records", List{Map{{"id", "a"}}}}},
         {Dictionary, Number, Array, String}},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const auto& [root, needed, isOneClass] = cases[i];
        const auto data = archivedDataWithRootObject(root).value();
        EXPECT_EQ(unarchivedObjectOfClasses(needed, data).value(), root) << i;
        EXPECT_EQ(unarchivedObjectOfClasses(anyClass, data).value(), root) << i;
        EXPECT_EQ(unarchivedObjectOfClasses({}, data).error().code, QSCoderReadCorruptError) << i;
        for (const auto only : allClasses) {
            const bool suffices = isOneClass && needed.contains(only);
            EXPECT_EQ(unarchivedObjectOfClasses({only}, data).has_value(), suffices) << i;
        }
    }
}

TEST(QSKeyedArchive, LaysOutObjectsByReference) {
    const auto data = archivedDataWithRootObject(List{QSDate{978'307'201, 0}, "a"}).value();
    const auto record = [](std::string_view name) {
        return Map{{"$classname", name}, {"$classes", List{name, "QSObject"}}};
    };
    const QSPropertyList expected =
        Map{{"$version", 100'000},
            {"$archiver", "QSKeyedArchiver"},
            {"$top", Map{{"root", UID{5}}}},
            {"$objects", List{"$null", record("QSArray"), record("QSDate"),
                              Map{{"$class", UID{2}}, {"QS.time", 1.0}}, "a",
                              Map{{"$class", UID{1}}, {"QS.objects", List{UID{3}, UID{4}}}}}}};
    EXPECT_EQ(propertyListWithData(data).value(), expected);
    EXPECT_EQ(archivedDataWithRootObject(List{UID{1}}).error().code, QSCoderInvalidValueError);
    EXPECT_EQ(archivedDataWithRootObject("\xC0").error().code, QSCoderInvalidValueError);
}

}  // namespace
}  // namespace platform

#include <gtest/gtest.h>

#include <limits>

#include "MemoryPeak.h"
#include "PropertyListBytes.h"
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

/// An archive of these objects after "$null", with class records for arrays, dictionaries and dates
/// as objects 1 to 3; the root is object 4.
QSPropertyList archiveOf(List objects) {
    List all = {"$null"};
    for (const std::string_view name : {"QSArray", "QSDictionary", "QSDate"}) {
        all.emplace_back(Map{{"$classname", name}, {"$classes", List{name, "QSObject"}}});
    }
    all.insert(all.end(), objects.begin(), objects.end());
    return Map{{"$version", 100'000},
               {"$archiver", "QSKeyedArchiver"},
               {"$top", Map{{"root", UID{4}}}},
               {"$objects", std::move(all)}};
}

QSPropertyList arrayOf(List elements) {
    return Map{{"$class", UID{1}}, {"QS.objects", std::move(elements)}};
}

QSPropertyList dictionaryOf(List keys, List values) {
    return Map{{"$class", UID{2}}, {"QS.keys", std::move(keys)}, {"QS.objects", std::move(values)}};
}

QSPropertyList dateAt(QSPropertyList time) {
    return Map{{"$class", UID{3}}, {"QS.time", std::move(time)}};
}

/// `count` arrays, each holding the next one `width` times, around a string.
List nest(std::uint64_t count, std::size_t width) {
    List objects;
    for (std::uint64_t i = 0; i < count; ++i) {
        objects.push_back(arrayOf(List(width, UID{5 + i})));
    }
    objects.emplace_back("leaf");
    return objects;
}

QSPropertyList changed(std::string_view key, std::optional<QSPropertyList> value) {
    auto archive = *archiveOf({"a"}).asDictionary();
    archive.erase(std::string(key));
    if (value) archive.emplace(key, *value);
    return archive;
}

TEST(QSKeyedArchive, RefusesHostileArchivesWithinItsMemory) {
    const auto record = [](QSPropertyList name, QSPropertyList classes) {
        return archiveOf({Map{{"$class", UID{5}}, {"QS.time", 1.0}},
                          Map{{"$classname", std::move(name)}, {"$classes", std::move(classes)}}});
    };
    EXPECT_FALSE(unarchivedObjectOfClasses(anyClass, dataFromString("<plist><dict/></plist>")));
    const std::vector<std::pair<const char*, QSPropertyList>> cases = {
        {"no dictionary", List{}},
        {"no version", changed("$version", std::nullopt)},
        {"another version", changed("$version", 100'001)},
        {"another archiver", changed("$archiver", "Other")},
        {"no top", changed("$top", std::nullopt)},
        {"top without root", changed("$top", Map{})},
        {"root by value", changed("$top", Map{{"root", "a"}})},
        {"root is null", changed("$top", Map{{"root", UID{0}}})},
        {"root beyond any index", changed("$top", Map{{"root", UID{~std::uint64_t{0}}}})},
        {"objects of another type", changed("$objects", Map{})},
        {"root is a class record", changed("$top", Map{{"root", UID{1}}})},
        {"unknown class", record("QSSet", List{"QSSet", "QSObject"})},
        {"class that only claims another", record("QSSet", List{"QSDate", "QSObject"})},
        {"class among its ancestors", record("QSDate", List{"QSSet", "QSDate"})},
        {"class without ancestry", record("QSDate", List{})},
        {"class name of another type", record(1, List{1})},
        {"class by value", archiveOf({Map{{"$class", "QSDate"}, {"QS.time", 1.0}}})},
        {"plain array", archiveOf({List{}})},
        {"plain date", archiveOf({QSDate{}})},
        {"plain UID", archiveOf({UID{4}})},
        {"date without time", archiveOf({Map{{"$class", UID{3}}}})},
        {"date of text", archiveOf({dateAt("1")})},
        {"NaN date", archiveOf({dateAt(std::numeric_limits<double>::quiet_NaN())})},
        {"infinite date", archiveOf({dateAt(std::numeric_limits<double>::infinity())})},
        {"array without elements", archiveOf({Map{{"$class", UID{1}}}})},
        {"array of itself", archiveOf({arrayOf({UID{4}, UID{4}})})},
        {"more keys than values", archiveOf({dictionaryOf({UID{5}}, {}), "k"})},
        {"equal keys", archiveOf({dictionaryOf({UID{5}, UID{6}}, {UID{5}, UID{5}}), "k", "k"})},
        {"number as key", archiveOf({dictionaryOf({UID{5}}, {UID{5}}), 1})},
        {"dictionary of itself", archiveOf({dictionaryOf({UID{5}}, {UID{4}}), "k"})},
        {"deep", archiveOf(nest(40, 1))},
        {"fan-out", archiveOf(nest(8, 20))},
        {"shared big string", archiveOf({arrayOf(List(1'000, UID{5})), std::string(20'000, 'x')})},
    };
    for (const auto& [what, archive] : cases) {
        const auto data = binaryData(archive).value();
        std::int64_t code = 0;
        const auto peak = tests::memoryPeak([&] {
            const auto root = unarchivedObjectOfClasses(anyClass, data);
            if (!root) code = root.error().code;
        });
        EXPECT_EQ(code, QSCoderReadCorruptError) << what;
        EXPECT_LT(peak, 1U << 20) << what;
    }
    // The other way round: what lies just within the limits is read, and within the memory too.
    const auto data = binaryData(archiveOf({arrayOf(List(2'500, UID{5})), "leaf"})).value();
    std::size_t count = 0;
    const auto peak = tests::memoryPeak([&] {
        count = unarchivedObjectOfClasses({Array, String}, data).value().asArray()->size();
    });
    EXPECT_EQ(count, 2'500U);
    EXPECT_LT(peak, 1U << 20);
}

/// The refusal of a class must come first: here its object would not even decode.
TEST(QSKeyedArchive, RefusesAClassBeforeItLooksIntoTheObject) {
    const auto data = binaryData(archiveOf({arrayOf({UID{5}}), dateAt("no time")})).value();
    const auto reason = [&](ArchiveClasses allowed) {
        return unarchivedObjectOfClasses(allowed, data).error().description();
    };
    EXPECT_NE(reason({Array}).find("not allowed"), std::string::npos);
    EXPECT_NE(reason({Date}).find("not allowed"), std::string::npos);
    EXPECT_EQ(reason({Array, Date}).find("not allowed"), std::string::npos);
}

}  // namespace
}  // namespace platform

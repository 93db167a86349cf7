#include "platform/foundation/QSPropertyList.h"

#include <gtest/gtest.h>

#include <limits>

#include "PropertyListBytes.h"

namespace platform {
namespace {

using Array = QSPropertyList::Array;
using Dictionary = QSPropertyList::Dictionary;
using tests::arrayOfOne;
using tests::binaryList;
using tests::fromHex;

constexpr auto top63 = std::uint64_t{1} << 63;

/// `depth` arrays, one within the other.
QSPropertyList nested(std::size_t depth) {
    QSPropertyList list = Array{};
    while (--depth > 0) list = Array{list};
    return list;
}

std::string repeated(std::string_view text, int count) {
    std::string all;
    while (count-- > 0) all += text;
    return all;
}

TEST(QSPropertyList, EveryValueComesBackFromItsBytes) {
    constexpr auto lowest = std::numeric_limits<std::int64_t>::min();
    Array all;
    for (int i = 0; i < 300; ++i) all.emplace_back(i);  // two-byte references
    for (const Array& values : {
             Array{true, false, 0, 1, 255, 256, 65'535, 65'536, 0xFFFF'FFFFU, 0x1'0000'0000},
             Array{-1, -255, lowest, lowest + 1, top63 - 1, top63, top63 + (top63 - 1)},
             Array{0.0, -0.5, 1e308, QSData{}, QSData(300, 0xFF), QSDate{},
                   QSDate{-1, 500'000'000}},
             Array{"", "fourteen bytes", "fifteen bytes..", std::string(17'000, 'x')},
             Array{"gr\xC3\xBC\xC3\x9F", "\xF0\x9F\x8C\x8A", "\xEF\xBF\xBF", std::string(1, '\0')},
             Array{QSPropertyList::UID{0}, QSPropertyList::UID{0x1'0000}, nested(30)},
             Array{Array{}, Dictionary{}, Dictionary{{"", 1}, {"k", Dictionary{{"k", "k"}}}}},
         }) {
        all.insert(all.end(), values.begin(), values.end());
    }
    all.emplace_back(all);
    for (std::size_t i = 0; i < all.size(); ++i) {
        const auto back = propertyListWithData(binaryData(all[i]).value());
        ASSERT_TRUE(back) << i << ": " << back.error().description();
        EXPECT_EQ(*back, all[i]) << i;
    }
    // A double keeps 100 ns; once rounded, a date stays as it is.
    const QSDate date{1'790'000'000, 123'456'001};
    const auto rounded = propertyListWithData(*binaryData(date)).value();
    EXPECT_EQ(rounded.asDate()->seconds, date.seconds);
    EXPECT_NEAR(rounded.asDate()->nanoseconds, date.nanoseconds, 100);
    EXPECT_EQ(propertyListWithData(*binaryData(rounded)).value(), rounded);
}

TEST(QSPropertyList, BytesAreThoseOfTheFormat) {
    EXPECT_EQ(*binaryData(Dictionary{{"a", 1}}),
              fromHex("62 70 6c 69 73 74 30 30  d1 01 02  51 61  10 01  08 0b 0d"
                      "00 00 00 00 00 00  01 01  00 00 00 00 00 00 00 03"
                      "00 00 00 00 00 00 00 00  00 00 00 00 00 00 00 0f"));
    // Equal scalars are stored once; 2^63 takes sixteen bytes, a surrogate pair two units.
    EXPECT_EQ(*binaryData(Array{"\xF0\x9F\x8C\x8A", top63, "\xF0\x9F\x8C\x8A"}),
              fromHex("62 70 6c 69 73 74 30 30  a3 01 02 01  62 d8 3c df 0a"
                      "14 00 00 00 00 00 00 00 00 80 00 00 00 00 00 00 00  08 0c 11"
                      "00 00 00 00 00 00  01 01  00 00 00 00 00 00 00 03"
                      "00 00 00 00 00 00 00 00  00 00 00 00 00 00 00 22"));
    EXPECT_EQ(binaryData("\xFF").error().code, QSCoderInvalidValueError);
    EXPECT_EQ(binaryData(Dictionary{{"\xED\xA0\x80", 1}}).error().code, QSCoderInvalidValueError);
    EXPECT_EQ(binaryData(nested(33)).error().code, QSCoderInvalidValueError);
}

TEST(QSPropertyList, ReadsForeignFormsOfValues) {
    const auto read = [](std::string_view hex) {
        return propertyListWithData(binaryList({fromHex(hex)})).value();
    };
    EXPECT_EQ(read("22 3f 80 00 00"), QSPropertyList(1.0));             // a short real
    EXPECT_EQ(read("5f 10 01 61"), QSPropertyList("a"));                // a count written long
    EXPECT_EQ(read("11 00 01"), QSPropertyList(1));                     // an integer written long
    EXPECT_EQ(read("12 ff ff ff ff"), QSPropertyList(0xFFFF'FFFFU));    // four bytes are unsigned
    EXPECT_EQ(read("13 ff ff ff ff ff ff ff ff"), QSPropertyList(-1));  // eight are signed
    EXPECT_EQ(read("82 00 00 05"), QSPropertyList(QSPropertyList::UID{5}));
}

TEST(QSPropertyList, ReadsXML) {
    constexpr std::string_view text = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//EXAMPLE//DTD PLIST 1.0//EN" "http://example.org/list.dtd">
<plist version="1.0"><!-- a comment -->
<dict>
  <key>a&amp;b</key><string>&#x0A; &lt;<![CDATA[&x;<]]></string>
  <key>list</key><array> <integer>-9223372036854775808</integer><integer>18446744073709551615</integer>
    <true/><false/><real>-1.5</real><string> </string><string/><array/><dict/></array>
  <key>date</key><date>1999-12-31T23:59:59Z</date>
  <key>data</key><data> AAEC
    /w== </data>
</dict></plist>
)";
    const QSPropertyList expected =
        Dictionary{{"a&b", "\n <&x;<"},
                   {"list", Array{std::numeric_limits<std::int64_t>::min(),
                                  std::numeric_limits<std::uint64_t>::max(), true, false, -1.5, " ",
                                  "", Array{}, Dictionary{}}},
                   {"date", QSDate{946'684'799, 0}},
                   {"data", QSData{0, 1, 2, 0xFF}}};
    const auto list = propertyListWithData(dataFromString(text));
    ASSERT_TRUE(list) << list.error().description();
    EXPECT_EQ(*list, expected);
    EXPECT_EQ(propertyListWithData(*binaryData(*list)).value(), expected);
}

TEST(QSPropertyList, RefusesMalformedXML) {
    std::vector<std::string> texts = {
        "",
        "<",
        "plist",
        "<list><true/></list>",
        "<plist><true/></plist><plist><true/></plist>",
        "<!DOCTYPE plist [<!ENTITY a \"b\">]><plist><string>x</string></plist>"};
    const auto deep = repeated("<array>", 40) + repeated("</array>", 40);
    const std::pair<std::string, std::vector<std::string>> elements[] = {
        {"plist", {"", "text", "<other/>", "<string>a", "<true/><true/>", deep}},
        {"integer", {"9223372036854775808123", "-9223372036854775809", "0x10", "", " 1"}},
        {"real", {"1,5"}},
        {"true", {"x"}},
        {"date", {"2026-02-30T00:00:00Z", "2026-01-01"}},
        {"data", {"A", "AA=A", "===="}},
        {"string",
         {"&undefined;", "&#0;", "&#4294967296;", "&#xD800;", "\xFF", "<true/>", {"a\0b", 3}}},
        {"dict", {"<key>a</key>", "<true/>", "<key>a</key><true/><key>a</key><true/>"}},
        {"array", {"x<true/>"}}};
    for (const auto& [element, contents] : elements) {
        for (const auto& content : contents) {
            const auto text = "<" + element + ">" + content + "</" + element + ">";
            texts.push_back(element == "plist" ? text : "<plist>" + text + "</plist>");
        }
    }
    for (const auto& text : texts) {
        const auto list = propertyListWithData(dataFromString(text));
        ASSERT_FALSE(list) << text;
        EXPECT_EQ(list.error().code, QSFileReadCorruptFileError) << text;
    }
}

/// `count` arrays, each of which holds the next one `width` times.
QSData nestedArrays(std::uint64_t count, std::uint64_t width) {
    std::vector<QSData> objects;
    for (std::uint64_t i = 1; i <= count; ++i) objects.push_back(arrayOfOne(i, width));
    objects.push_back(fromHex("a0"));
    return binaryList(objects, 2);
}

TEST(QSPropertyList, RefusesHostileObjects) {
    auto bigString = fromHex("5f 12 00 00 40 00");
    bigString.insert(bigString.end(), 0x4000, 'x');
    const auto one = [](std::string_view hex) { return binaryList({fromHex(hex)}); };
    const std::vector<std::pair<const char*, QSData>> cases = {
        {"null", one("00")},
        {"unknown type", one("7f")},
        {"integer of 32 bytes", one("15 00")},
        {"integer above 2^64", one("14 00 00 00 00 00 00 00 01 00 00 00 00 00 00 00 00")},
        {"cut-off integer", one("13 00")},
        {"cut-off string", one("5f 10 ff 61")},
        {"not ASCII", one("51 80")},
        {"lone high surrogate", one("61 d8 00")},
        {"lone low surrogate", one("62 dc 00 d8 00")},
        {"NaN date", one("33 7f f8 00 00 00 00 00 00")},
        {"infinite date", one("33 ff f0 00 00 00 00 00 00")},
        {"UID of 16 bytes", one("8f 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00")},
        {"count of 2^64 - 1", one("5f 13 ff ff ff ff ff ff ff ff")},
        {"entries that overflow", one("df 13 7f ff ff ff ff ff ff ff")},
        {"a count that is no integer", one("5f 51 61")},
        {"dangling reference", one("a1 07")},
        {"a cycle of two", binaryList({fromHex("a1 01"), fromHex("d1 02 00"), fromHex("51 61")})},
        {"key of another type", binaryList({fromHex("d1 01 01"), fromHex("10 01")})},
        {"equal keys", binaryList({fromHex("d2 01 02 03 03"), fromHex("51 61"),
                                   fromHex("5f 10 01 61"), fromHex("09")})},
        {"shared a million times", binaryList({arrayOfOne(1, 30'000), fromHex("51 61")}, 2)},
        {"a shared big string", binaryList({arrayOfOne(1, 100), bigString}, 2)},
        {"fan-out", nestedArrays(16, 16)},
        {"deep", nestedArrays(4'000, 1)},
        {"too many objects", binaryList(std::vector<QSData>(9'000, fromHex("09")))},
        {"too large", binaryList({QSData(66'000, 0x09)})},
        {"XML tags", dataFromString("<plist><array>" + repeated("<a/>x", 12'000))},
        {"XML below the limit of tags",
         dataFromString("<plist><array>" + repeated("<dict/>x", 4'080) + "</array></plist>")},
    };
    for (const auto& [what, bytes] : cases) {
        const auto list = propertyListWithData(bytes);
        ASSERT_FALSE(list) << what;
        EXPECT_EQ(list.error().code, QSFileReadCorruptFileError) << what;
    }
}

TEST(QSPropertyList, KeepsExactlyToTheLimitsOfTheCaller) {
    const auto bytes = *binaryData(Array{Array{1, 2, 3}});
    const auto reads = [&](auto change) {
        QSPropertyListLimits limits;
        change(limits);
        return propertyListWithData(bytes, limits).has_value();
    };
    const auto size = bytes.size();
    EXPECT_TRUE(reads([&](auto& limits) { limits = {size, 2, 5, 4 * sizeof(QSPropertyList)}; }));
    EXPECT_FALSE(reads([&](auto& limits) { limits.bytes = size - 1; }));
    EXPECT_FALSE(reads([&](auto& limits) { limits.depth = 1; }));
    EXPECT_FALSE(reads([&](auto& limits) { limits.objects = 4; }));
    EXPECT_FALSE(
        reads([&](auto& limits) { limits.expandedBytes = 4 * sizeof(QSPropertyList) - 1; }));
}

}  // namespace
}  // namespace platform

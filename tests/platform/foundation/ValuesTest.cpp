#include <gtest/gtest.h>

#include <array>
#include <limits>

#include "platform/foundation/QSDate.h"
#include "platform/foundation/QSURL.h"
#include "platform/foundation/QSUUID.h"
#include "platform/foundation/QSUnicode.h"

namespace platform {
namespace {

TEST(QSURL, PathsAreNormalisedButNotResolved) {
    for (const auto& [given, path, last, parent] : std::vector<std::array<std::string_view, 4>>{
             {"/a/b", "/a/b", "b", "/a"},
             {"//a///b/", "/a/b", "b", "/a"},
             {"/./a/./.", "/a", "a", "/"},
             {"/a/../b", "/a/../b", "b", "/a/.."},
             {"a", "/a", "a", "/"},
             {"/.a/..b", "/.a/..b", "..b", "/.a"},
             {"/", "/", "", "/"},
             {"", "/", "", "/"},
         }) {
        const auto url = QSURL::fileURLWithPath(given);
        EXPECT_EQ(url.path(), path) << given;
        EXPECT_EQ(url.lastPathComponent(), last) << given;
        EXPECT_EQ(url.URLByDeletingLastPathComponent().path(), parent) << given;
        EXPECT_EQ(QSURL::URLWithString("file://" + std::string(given)), url);
    }
    const auto url = QSURL::fileURLWithPath("/x/y");
    EXPECT_EQ(url.pathComponents(), (std::vector<std::string_view>{"x", "y"}));
    EXPECT_TRUE(QSURL::fileURLWithPath("/").pathComponents().empty());
    EXPECT_EQ(QSURL::fileURLWithPath("/").URLByAppendingPathComponent("a").path(), "/a");
    EXPECT_EQ(url.URLByAppendingPathComponent("a\n\xFF%").description(), "file:///x/y/a%0A%FF%25");
    EXPECT_DEATH((void)url.URLByAppendingPathComponent("a/b"), "path component");

    const auto other = QSURL::URLWithString("https://example.org/a");
    EXPECT_FALSE(other.isFileURL());
    EXPECT_EQ(other.URLByAppendingPathComponent("a").URLByDeletingLastPathComponent(), other);
}

TEST(QSDate, IntervalsCountFrom2001) {
    for (const auto& [date, interval] : {std::pair{QSDate{978'307'200, 0}, 0.0},
                                         std::pair{QSDate{978'307'199, 750'000'000}, -0.25},
                                         std::pair{QSDate{0, 0}, -978'307'200.0},
                                         std::pair{QSDate{978'307'201, 500'000'000}, 1.5}}) {
        EXPECT_EQ(date.timeIntervalSinceReferenceDate(), interval);
        EXPECT_EQ(QSDate::dateWithTimeIntervalSinceReferenceDate(interval), date);
    }
    EXPECT_EQ(QSDate::dateWithTimeIntervalSinceReferenceDate(1e300).seconds, 253'402'300'799);
    EXPECT_LT(
        (QSDate{std::numeric_limits<std::int64_t>::min(), 0}).timeIntervalSinceReferenceDate(),
        -9e18);
}

TEST(QSUUID, ReadsAndWritesItsText) {
    const auto uuid = QSUUID::fromString("0123abcd-EF01-2345-6789-abcdefABCDEF");
    ASSERT_TRUE(uuid);
    EXPECT_EQ(uuid->UUIDString(), "0123ABCD-EF01-2345-6789-ABCDEFABCDEF");
    for (const std::string_view bad :
         {"", "0123abcd-EF01-2345-6789-abcdefABCDE", "0123abcd-EF01-2345-6789-abcdefABCDEFA",
          "0123abcd+EF01-2345-6789-abcdefABCDEF", "0123abcg-EF01-2345-6789-abcdefABCDEF",
          "0123abcdE-F01-2345-6789-abcdefABCDEF"}) {
        EXPECT_FALSE(QSUUID::fromString(bad)) << bad;
    }
    EXPECT_NE(QSUUID::random(), QSUUID::random());
    EXPECT_EQ(QSUUID::random().UUIDString()[14], '4');
}

TEST(QSUnicode, AcceptsOnlyWellFormedText) {
    for (const std::string_view good :
         {"", "a", "\x7F", "\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEE\x80\x80",
          "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"}) {
        const auto units = UTF16FromUTF8(good);
        ASSERT_TRUE(units) << good;
        EXPECT_EQ(UTF8FromUTF16(*units), good);
    }
    for (const std::string_view bad :
         {"\x80", "\xC1\xBF", "\xC2", "\xC2\x41", "\xE0\x9F\xBF", "\xED\xA0\x80", "\xE2\x82",
          "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFF"}) {
        EXPECT_FALSE(isUTF8(bad)) << bad;
    }
}

TEST(QSDate, ReadsWhatItWritesAndTheOtherFormsOfRFC3339) {
    for (const auto& [date, text] :
         {std::pair{QSDate{-62'167'219'200, 0}, "0000-01-01T00:00:00.000000000Z"},
          {QSDate{-1, 999'999'999}, "1969-12-31T23:59:59.999999999Z"},
          {QSDate{951'782'400, 5}, "2000-02-29T00:00:00.000000005Z"},
          {QSDate{253'402'300'799, 999'999'999}, "9999-12-31T23:59:59.999999999Z"}}) {
        EXPECT_EQ(date.rfc3339(), text);
        EXPECT_EQ(QSDate::dateFromRFC3339(text), date);
    }
    EXPECT_EQ((QSDate{std::numeric_limits<std::int64_t>::max(), 0}).rfc3339(),
              "9999-12-31T23:59:59.000000000Z");
    const QSDate half{1'769'850'900, 500'000'000};
    for (const auto* text : {"2026-01-31T09:15:00.5Z", "2026-01-31t10:15:00.500000000999+01:00",
                             "2026-01-31 04:45:00.50-04:30", "2026-02-01T08:14:00.5+22:59"}) {
        EXPECT_EQ(QSDate::dateFromRFC3339(text), half) << text;
    }
    for (const auto* text : {"", "2026", "2026-01-31", "2026-02-29T00:00:00Z",
                             "2026-13-01T00:00:00Z", "2026-01-31T24:00:00Z", "2026-01-31T00:00:60Z",
                             "2026-01-31T00:00:00", "2026-01-31T00:00Z", "2026-01-31T00:00:00.Z",
                             "2026-01-31T00:00:00Zx", "2026-01-31T00:00:00+1:00",
                             "+026-01-31T00:00:00Z", "2026-01-31T00:00:00.99999999999999999999"}) {
        EXPECT_EQ(QSDate::dateFromRFC3339(text), std::nullopt) << text;
    }
}

}  // namespace
}  // namespace platform

#include "cli/format.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>

#include "cli/text.h"

namespace {

using nlohmann::json;
using namespace std::string_literals;
using Cases = std::vector<std::pair<std::string, std::string>>;

std::string jsonString(std::string_view text) {
    std::string out;
    cli::appendJsonString(out, text);
    return out;
}

/// The documented way back: U+0000 and two digits are one byte.
std::string unescaped(const std::string& text) {
    std::string bytes;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '\0') {
            bytes += text[at];
            continue;
        }
        bytes += static_cast<char>(std::stoi(text.substr(at + 1, 2), nullptr, 16));
        at += 2;
    }
    return bytes;
}

TEST(JsonStringTest, AnyBytesBecomeValidJsonAndComeBack) {
    for (const std::string& text : std::vector<std::string>{
             "", "Grüße 日本 🌊", "a\xc3", "\xc3(", "\xe2\x82", "\xf0\x9f\x8c", "\xed\xa0\x80",
             "\xc0\xaf", "\xf4\x90\x80\x80", "ok é then \xe9 end é", "nul\0ff"s}) {
        EXPECT_EQ(unescaped(json::parse(jsonString(text))), text);
    }
    for (int byte = 0; byte < 256; ++byte) {
        const auto text = "a" + std::string(1, static_cast<char>(byte)) + "é";
        EXPECT_EQ(unescaped(json::parse(jsonString(text))), text) << byte;
    }
    EXPECT_EQ(jsonString("Grüße 50%"), "\"Grüße 50%\"");
    EXPECT_EQ(jsonString("\xe9t\xe9"), R"("\u0000e9t\u0000e9")");
}

TEST(TerminalTextTest, NothingReachesTheTerminalThatItWouldObey) {
    const Cases cases{{"Grüße", "Grüße"},
                      {"\033[31m", R"(\x1b[31m)"},
                      {"a\nb\tc\rd", R"(a\nb\tc\rd)"},
                      {"\xff\\", R"(\xff\\)"},
                      {"\x7f\xc2\x9b", R"(\x7f\u{9b})"},
                      {"exe.\u202etxt", R"(exe.\u{202e}txt)"},
                      {"\u2066\u200f", R"(\u{2066}\u{200f})"}};
    for (const auto& [text, expected] : cases) EXPECT_EQ(cli::escapedForTerminal(text), expected);
}

TEST(HumanTextTest, SizesRoundIntoTheNextUnit) {
    const std::vector<std::pair<std::uint64_t, std::string>> cases{{0, "0 B"},
                                                                   {1023, "1023 B"},
                                                                   {1024, "1.0 KiB"},
                                                                   {1'468'006, "1.4 MiB"},
                                                                   {1'048'524, "1023.9 KiB"},
                                                                   {1'048'525, "1.0 MiB"},
                                                                   {UINT64_MAX, "16.0 EiB"}};
    for (const auto& [bytes, expected] : cases) EXPECT_EQ(cli::humanSize(bytes), expected);
}

TEST(Base64Test, ReadsWhatItWritesAndNothingElse) {
    const Cases cases{{"", ""},        {"f", "Zg=="},        {"fo", "Zm8="},
                      {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"\xff\xfe\xfd", "//79"}};
    for (const auto& [text, encoded] : cases) {
        const auto data = platform::dataFromString(text);
        EXPECT_EQ(cli::base64(data), encoded);
        EXPECT_EQ(cli::dataFromBase64(encoded), data);
    }
    for (const auto* bad : {"Z", "Zg", "Zg=", "Zh==", "Zm9v=", "Zm 9", "Zm9v\n", "===="}) {
        EXPECT_FALSE(cli::dataFromBase64(bad)) << bad;
    }
}

host::ItemRecord sample() {
    host::ItemRecord item{};
    item.itemIdentifier = "did=7";
    item.parentItemIdentifier = "fid=2";
    item.filename = "r\xe9sum\xe9";
    item.typeIdentifier = "public.folder";
    item.contentModificationDate = platform::QSDate{1'769'850'900, 5};
    item.childItemCount = 1;
    item.capabilities = 41;
    item.versionIdentifier = platform::dataFromString("fo");
    item.tags = {"a\"", "b"};
    item.favoriteRank = UINT64_MAX;
    item.fileID = -1;
    item.path = "/s/r\xe9";
    return item;
}

TEST(FormatTest, JsonHasEveryKeyInItsOrder) {
    std::string line;
    cli::appendJson(line, sample());
    EXPECT_EQ(
        line,
        R"({"itemIdentifier":"did=7","parentItemIdentifier":"fid=2","filename":"r\u0000e9sum\u0000e9",)"
        R"("typeIdentifier":"public.folder","documentSize":null,"creationDate":null,)"
        R"("contentModificationDate":"2026-01-31T09:15:00.000000005Z","childItemCount":1,)"
        R"("capabilities":41,"versionIdentifier":"Zm8=","isTrashed":false,"lastUsedDate":null,)"
        R"("tags":["a\"","b"],"favoriteRank":18446744073709551615,"fileID":-1,"docID":null,)"
        R"("path":"/s/r\u0000e9","beaconDomainIdentifier":null,)"
        R"("appContainerBundleIdentifier":null,"isContainer":false})"
        "\n");
}

TEST(FormatTest, RowsAlignAndColourOnlyTerminals) {
    setenv("TZ", "UTC", 1);
    tzset();
    auto item = sample();
    std::string rows;
    cli::appendRow(rows, item, {});
    cli::appendRow(rows, item, {.isTerminal = true, .hasColor = true});
    item.typeIdentifier = "public.data";
    item.documentSize = 1'468'006;
    item.contentModificationDate = {};
    cli::appendRow(rows, item, {.isTerminal = true, .hasColor = true});
    EXPECT_EQ(rows,
              "     1 item  2026-01-31 09:15  r\xe9sum\xe9/\n"
              "     1 item  2026-01-31 09:15  \033[1;34mr\\xe9sum\\xe9\033[0m/\n"
              "    1.4 MiB  -                 r\\xe9sum\\xe9\n");
}

}  // namespace

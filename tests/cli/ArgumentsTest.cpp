#include "cli/Arguments.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <ranges>

#include "platform/fileprovider/QSFileProviderError.h"
#include "platform/fileprovider/QSFileProviderItem.h"
#include "tests/support/ScratchFolder.h"

namespace {

using cli::ExitCode;

std::variant<cli::Arguments, cli::NothingToRun> parse(const std::vector<std::string>& words) {
    std::vector<const char*> line{"tidewell"};
    for (const auto& word : words) line.push_back(word.c_str());
    return cli::parseArguments(static_cast<int>(line.size()), line.data());
}

std::vector<std::string> split(std::string_view text, char separator) {
    std::vector<std::string> parts;
    for (const auto& part : std::views::split(text, separator)) {
        parts.emplace_back(part.begin(), part.end());
    }
    return parts;
}

TEST(ArgumentsTest, WhatMakesNoSenseIsAUsageError) {
    constexpr auto lines =
        "|fly|stat|stat |ls --nope|ls a b|ls --page|ls --page ?|tree working-set|"
        "ls --page Zg== --sort-by-date|stat x --one-page|changes|changes x --since ?|"
        "watch x --one-page|tag x|tag x |tag x \xff|tag x a --clear|favorite x -1|favorite x 1a|"
        "used x yesterday|sync x|mkdir x|import --to x|rename x|mv x|trash|empty-trash|"
        "empty-trash --older-than 30|empty-trash --older-than -1d|watch x --trash-age never";
    for (const auto& line : split(lines, '|')) {
        auto words = split(line, ' ');
        const auto plain = parse(words);
        ASSERT_TRUE(std::holds_alternative<cli::NothingToRun>(plain)) << line;
        ASSERT_TRUE(std::get<cli::NothingToRun>(plain).error) << line;
        EXPECT_EQ(cli::exitCodeFor(*std::get<cli::NothingToRun>(plain).error), ExitCode::Usage);
        EXPECT_FALSE(std::get<cli::NothingToRun>(plain).json) << line;
        words.insert(words.begin(), "--json");
        EXPECT_TRUE(std::get<cli::NothingToRun>(parse(words)).json) << line;
    }
}

TEST(ItemNameTest, IdentifiersWordsAndPaths) {
    tests::ScratchFolder scratch;
    const auto real = std::filesystem::canonical(scratch.path());
    scratch.makeFile("folder/root");
    std::filesystem::create_directory_symlink("folder", scratch / "link");
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path(scratch / "folder");

    using Expected = std::pair<std::string, bool>;
    const std::vector<std::pair<std::string, Expected>> cases{
        {"did=5", {"did=5", false}},
        {"#org.example", {"#org.example", false}},
        {"root", {std::string(platform::QSFileProviderRootContainerItemIdentifier), false}},
        {std::string(platform::QSFileProviderWorkingSetContainerItemIdentifier),
         {std::string(platform::QSFileProviderWorkingSetContainerItemIdentifier), false}},
        {"./root", {real / "folder/root", true}},
        {"not-there-yet", {real / "folder/not-there-yet", true}},
        {".", {real / "folder", true}},
        {"..", {real, true}},
        {"../link/root", {real / "folder/root", true}},
        {"../link", {real / "link", true}},     // the link is an item itself,
        {"../link/", {real / "folder", true}},  // what it leads to another
        {"/", {"/", true}}};
    for (const auto& [argument, expected] : cases) {
        const auto name = cli::parseItem(argument);
        ASSERT_TRUE(name) << argument;
        EXPECT_EQ(Expected(name->text, name->isPath), expected) << argument;
    }
    EXPECT_EQ(cli::parseItem("missing/file").error().code, ENOENT);
    for (const auto* text : {"did=", "did=1junk", "did=+1", "did= 1", "fid=01", "fid=0x1"}) {
        EXPECT_EQ(cli::parseItem(text).error().domain, cli::usageErrorDomain) << text;
    }
    EXPECT_EQ(cli::parseItem("./root/").error().code, ENOTDIR);
    std::filesystem::current_path(before);
}

TEST(ErrorLineTest, NamesWhatFailedOnOneLine) {
    const std::vector<std::pair<platform::QSError, std::string>> cases{
        {platform::fileProviderErrorForNonExistentItemWithIdentifier("did=1"),
         "there is no item with the identifier did=1"},
        {platform::QSError{"Tidewell.LocalFileProviderError", 0}, "did=1: there is no such item"},
        {platform::errorFromErrno(ENOENT, "/a\nb"), "/a\\nb: No such file or directory"},
        {platform::errorFromErrno(EACCES), "did=1: Permission denied"}};
    for (const auto& [error, text] : cases) {
        EXPECT_EQ(cli::errorLine(error, "did=1", false), "tidewell: " + text + "\n");
    }
}

}  // namespace

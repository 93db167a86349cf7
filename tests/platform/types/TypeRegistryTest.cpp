#include "platform/types/TypeRegistry.h"

#include <gmock/gmock.h>

#include <array>
#include <thread>

#include "tests/support/ScratchFolder.h"

namespace platform {
namespace {

TEST(TypeRegistryTest, DirectoriesHaveDeclaredTypesAndFilesThoseOfTheDatabase) {
    const TypeRegistry types;
    EXPECT_EQ(types.typeOfDirectory("Song.QUIRE"), "com.quenby.quire");
    EXPECT_EQ(types.typeOfDirectory("v1.2 Song.lutebox"), "com.quenby.lutebox");
    for (const char* name :
         {"Song", "", "quire", ".quire", "Song.quire.", "Song.quires", "a.txt"}) {
        EXPECT_EQ(types.typeOfDirectory(name), folderTypeIdentifier) << name;
    }
    EXPECT_EQ(types.typeOfFile("Song.quire"), types.typeOfFile("Song.unheard-of"));
    EXPECT_TRUE(types.conforms("com.quenby.quire", packageTypeIdentifier));
    EXPECT_TRUE(types.conforms("com.quenby.quire", "com.quenby.quire"));
    EXPECT_FALSE(types.conforms(packageTypeIdentifier, folderTypeIdentifier));
    EXPECT_FALSE(types.conforms(packageTypeIdentifier, "com.quenby.quire"));
    EXPECT_FALSE(types.conforms("text/plain", packageTypeIdentifier));
    if (types.typeOfFile("a.txt") != "text/plain") GTEST_SKIP() << "no MIME database";
    EXPECT_EQ(types.typeOfFile("a.PDF"), "application/pdf");
    EXPECT_EQ(types.typeOfFile("nothing known"), "application/octet-stream");
    EXPECT_TRUE(types.conforms("text/x-csrc", "text/plain"));
    EXPECT_FALSE(types.conforms("text/plain", "text/x-csrc"));
}

// A registry that was asked about all the other names before must say of each what one that was
// asked about nothing says.
TEST(TypeRegistryTest, WhatIsRememberedDiffersNowhereFromTheDatabase) {
    constexpr std::array stems{"a",      "Makefile", "README", "core",     "CMakeLists",
                               "lib.so", "123",      "b.tar",  "settings", "x.y",
                               "",       "meson",    "0.so.1", "Tar"};
    constexpr std::array ends{"",        ".txt",   ".c",      ".C",    ".gz",    ".tar.gz",
                              ".TAR.GZ", ".1",     ".so",     ".so.1", ".xml",   ".vdr",
                              ".build",  "~",      ".txt~",   ".c,v",  ".",      ".in",
                              ".7z.001", ".json",  ".xcf.gz", ".pdf",  ".html~", ".geo.json",
                              ".dump",   ".[1-9]", ".\xff"};
    const TypeRegistry shared;
    const auto forEachName = [&](const auto& visit) {
        for (const std::string stem : stems) {
            for (const char* end : ends) visit(stem + end);
        }
    };
    {
        const auto ask = [&] {
            forEachName([&](const auto& name) { EXPECT_FALSE(shared.typeOfFile(name).empty()); });
        };
        const std::array<std::jthread, 2> threads{std::jthread(ask), std::jthread(ask)};
    }
    forEachName([&](const auto& name) {
        EXPECT_EQ(shared.typeOfFile(name), TypeRegistry().typeOfFile(name)) << name;
    });
    for (int i = 0; i < 10'000; ++i) static_cast<void>(shared.typeOfFile(std::to_string(i)));
    EXPECT_EQ(shared.typeOfFile("Makefile"), TypeRegistry().typeOfFile("Makefile"));
}

TEST(TypeRegistryTest, LoadsDeclarationsAndReportsWhatIsMalformed) {
    const tests::ScratchFolder scratch;
    scratch.makeFile("one/10-first.json", R"({"types": [
        {"identifier": "org.a.bundle", "extensions": ["Bnd", "tar.bnd"], "folder": true,
         "conformsTo": ["org.a.base"]},
        {"identifier": "org.a.base", "conformsTo": ["com.quenby.package", "org.a.bundle"]},
        {"identifier": "org.a.note", "extensions": ["txt"], "conformsTo": ["text/x-csrc"]}]})");
    scratch.makeFile("one/20-later.json", R"({"types": [
        {"identifier": "org.b.bundle", "extensions": ["bnd"], "folder": true}]})");
    scratch.makeFile("one/30-cut.json", R"({"types": [{"identifier": "org.c")");
    scratch.makeFile("one/40-wrong.json", R"({"types": [
        {"identifier": "org.c.one", "extensions": ["one"], "folder": true},
        {"identifier": "org.c.two", "extensions": "two"}]})");
    scratch.makeFile("one/notes.txt", "not ours");
    scratch.makeFile("two/replace.json", R"({"types": [
        {"identifier": "com.quenby.quire", "extensions": ["folio"], "folder": true}]})");

    TypeRegistry types;
    const auto errors = types.load({scratch / "one", scratch / "none", scratch / "two"});
    ASSERT_EQ(errors.size(), 2U);
    EXPECT_EQ(errors[0].code, QSFileReadCorruptFileError);
    EXPECT_EQ(errors[0].userInfo.at(std::string(QSFilePathErrorKey)), scratch / "one/30-cut.json");
    EXPECT_EQ(errors[1].userInfo.at(std::string(QSFilePathErrorKey)),
              scratch / "one/40-wrong.json");

    EXPECT_EQ(types.typeOfDirectory("a.bnd"), "org.b.bundle");
    EXPECT_EQ(types.typeOfDirectory("a.tar.BND"), "org.a.bundle");
    EXPECT_EQ(types.typeOfDirectory("a.one"), folderTypeIdentifier);
    EXPECT_EQ(types.typeOfDirectory("a.folio"), "com.quenby.quire");
    EXPECT_EQ(types.typeOfDirectory("a.quire"), folderTypeIdentifier);
    EXPECT_EQ(types.typeOfFile("a.txt"), "org.a.note");
    EXPECT_EQ(types.typeOfDirectory("a.txt"), folderTypeIdentifier);
    EXPECT_TRUE(types.conforms("org.a.bundle", packageTypeIdentifier));  // and the cycle ends
    EXPECT_FALSE(types.conforms("org.a.bundle", folderTypeIdentifier));
    EXPECT_TRUE(types.conforms("org.a.note", "text/x-csrc"));
}

}  // namespace
}  // namespace platform

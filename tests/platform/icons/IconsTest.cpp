#include <gmock/gmock.h>
#include <sys/stat.h>

#include "platform/icons/IconLibrary.h"
#include "tests/support/Await.h"
#include "tests/support/Pictures.h"
#include "tests/support/ScratchFolder.h"

namespace platform {
namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;

/// The limit of a program that has to be killed.
constexpr std::chrono::milliseconds atOnce{100};

class IconsTest : public testing::Test {
  protected:
    /// The found path below the scratch folder, or "".
    std::string found(const std::string& name, int points, int scale = 1,
                      const std::string& theme = "Mine") const {
        const IconThemes themes({.folders = {scratch / "user", scratch / "system"},
                                 .loose = {scratch / "pixmaps"},
                                 .theme = theme});
        const auto path = themes.find(name, points, scale);
        return path ? fs::relative(*path, scratch.path()).string() : "";
    }
    std::shared_ptr<const IconLibrary> library(std::chrono::milliseconds deadline = seconds(4),
                                               std::string helper = TIDEWELL_ICON_HELPER) const {
        return makeIconLibrary({.themes = {.folders = {scratch / "user"}},
                                .helper = std::move(helper),
                                .deadline = deadline});
    }
    /// Decodes the file with that content at 60 pixels.
    Result<QIImage> decoded(const std::string& content,
                            std::chrono::milliseconds deadline = seconds(4)) const {
        const auto path = scratch.makeFile("icon", content);
        return library(deadline)->QICreateIconFromCachedBitmap(
            library()->iconDataForVariant(path, "", 0).value());
    }

    tests::ScratchFolder scratch;
};

TEST_F(IconsTest, FindsTheSizeThatFitsBestInTheFirstThemeThatHasTheIcon) {
    scratch.makeFile("system/Mine/index.theme",
                     "[Icon Theme]\nInherits=Loop, Parent\n"
                     "Directories=16,48,wide,../out,\nScaledDirectories=48@2\n"
                     "[16]\nSize=16\nType=Fixed\n[48]\nSize=48\n[48@2]\nSize=48\nScale=2\n"
                     "[wide]\nSize=64\nType=Scalable\nMinSize=60\nMaxSize=512\n"
                     "[../out]\nSize=60\nType=Fixed\n");
    scratch.makeFile("system/Loop/index.theme", "[Icon Theme]\nInherits=Mine,Loop,hicolor\n");
    scratch.makeFile("system/Parent/index.theme", "[Icon Theme]\nDirectories=32\n[32]\nSize=32\n");
    scratch.makeFile("user/hicolor/index.theme",
                     "[Icon Theme]\nDirectories=256\n[256]\nSize=256\n");
    for (const auto* path :
         {"system/Mine/16/a.png", "system/Mine/48/a.png", "user/Mine/48/a.png",
          "system/Mine/48@2/a.png", "system/Mine/wide/a.svg", "system/Mine/16/small.png",
          "system/out/a.png", "system/Parent/32/inherited.png", "system/hicolor/256/small.png",
          "system/hicolor/256/last.svg", "pixmaps/loose.png", "pixmaps/a.png"}) {
        scratch.makeFile(path);
    }
    EXPECT_EQ(found("a", 16), "system/Mine/16/a.png");
    EXPECT_EQ(found("a", 49), "user/Mine/48/a.png") << "within the threshold";
    EXPECT_EQ(found("a", 48, 2), "system/Mine/48@2/a.png");
    EXPECT_EQ(found("a", 60), "system/Mine/wide/a.svg");
    EXPECT_EQ(found("a.png", 1000), "system/Mine/wide/a.svg");
    EXPECT_EQ(found("small", 256), "system/Mine/16/small.png") << "the theme goes before the size";
    EXPECT_EQ(found("inherited", 60), "system/Parent/32/inherited.png");
    EXPECT_EQ(found("last", 60), "system/hicolor/256/last.svg");
    EXPECT_EQ(found("loose", 60), "pixmaps/loose.png");
    EXPECT_EQ(found("small", 60, 1, "../Mine"), "system/hicolor/256/small.png");
    const auto absolute = (scratch / "system/out/a.png").string();
    EXPECT_EQ(found(absolute, 60), "system/out/a.png");
    for (const auto& name : {std::string("none"), std::string(), std::string(".."),
                             std::string("../out/a"), absolute + "x", scratch.path().string(),
                             std::string("a\0b", 3), std::string(5000, 'a')}) {
        EXPECT_EQ(found(name, 60), "") << name;
    }
    for (int i = 0; i < 200; ++i) {
        scratch.makeFile("user/t" + std::to_string(i) + "/index.theme",
                         "[Icon Theme]\nInherits=t" + std::to_string(i + 1) + "\n");
    }
    EXPECT_EQ(found("a", 60, 1, "t0"), "pixmaps/a.png");
}

TEST_F(IconsTest, VariantsHaveTheirSizesAndAreDrawnAsTheyLook) {
    scratch.makeFile("app/icons/hicolor/index.theme",
                     "[Icon Theme]\nDirectories=any\n[any]\nSize=64\nType=Scalable\n");
    scratch.makeFile("app/icons/hicolor/any/a.svg", tests::svg("#ff0000"));
    for (const auto& [variant, side] :
         {std::pair{0, 60}, {15, 120}, {32, 180}, {1, 76}, {24, 152}}) {
        const auto data = library()->iconDataForVariant("a", scratch / "app", variant);
        ASSERT_TRUE(data) << variant;
        const auto image = library()->QICreateIconFromCachedBitmap(*data).value();
        EXPECT_EQ(image.side, side);
        ASSERT_EQ(image.pixels.size(), static_cast<std::size_t>(side * side));
        EXPECT_EQ(image.pixels[image.pixels.size() / 2], 0xFFFF'0000U);
        // The picture that goes out reads as the same again.
        QSData png;
        auto destination = QIImageDestination::createWithData(png, "image/png", 1);
        destination->addImage(image);
        ASSERT_TRUE(destination->finalize());
        const auto path = scratch.makeFile("out.png", stringFromData(png));
        const auto again = library()->iconDataForVariant(path, "", variant).value();
        EXPECT_EQ(library()->QICreateIconFromCachedBitmap(again).value().pixels, image.pixels);
    }
    EXPECT_FALSE(library()->iconDataForVariant("a", scratch / "app", 2));
    EXPECT_FALSE(library()->iconDataForVariant("a", "", 0));
}

TEST_F(IconsTest, HostileFilesCostTheirOwnPicture) {
    for (const auto& content :
         {std::string(1, '\0'), std::string("no picture"), tests::pngHeader(50'000, 50'000),
          tests::pngHeader(4'000, 4'000), tests::pngHeader(0, 1), tests::entityBomb(),
          tests::svg("red").substr(0, 80)}) {
        EXPECT_EQ(decoded(content).error(), errorFromErrno(EBADMSG)) << content.substr(0, 60);
    }
    // What it refers to is not read.
    scratch.makeFile("secret.svg", tests::svg("#00ff00"));
    const auto outside =
        decoded(tests::svg("#ff0000", "<image xlink:href=\"" + (scratch / "secret.svg").string() +
                                          "\" width=\"9\" height=\"9\"/>"));
    ASSERT_TRUE(outside);
    EXPECT_EQ(outside->pixels[1000], 0xFFFF'0000U);

    EXPECT_EQ(decoded(tests::endlessSVG(), atOnce).error(), errorFromErrno(ETIMEDOUT));
    EXPECT_TRUE(decoded(tests::svg("blue"))) << "the next one is not harmed";

    const auto fifo = scratch / "fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const auto large = scratch.makeFile("large.png");
    fs::resize_file(large, 5 << 20);
    for (const auto& path : {fifo, large, fs::path("/dev/zero")}) {
        EXPECT_FALSE(library()->iconDataForVariant(path, "", 0)) << path;
    }
}

TEST_F(IconsTest, AProgramThatHangsOrLiesIsNotBelieved) {
    const auto data =
        library()->iconDataForVariant(scratch.makeFile("icon", tests::svg("red")), "", 0).value();
    const auto run = [&](const std::string& script, auto deadline) {
        const auto path = scratch.makeFile("helper", "#!/bin/sh\n" + script + "\n");
        fs::permissions(path, fs::perms::owner_all);
        return library(deadline, path)->QICreateIconFromCachedBitmap(data);
    };
    EXPECT_EQ(run("exec sleep 100", atOnce).error().code, ETIMEDOUT);
    for (const auto& [script, code] : {std::pair("exec yes", EBADMSG),
                                       {"printf 'QIB1\\074\\0\\0\\0'", EBADMSG},  // no pixels
                                       {"printf 'QIB1\\075\\0\\0\\0'; exec cat /dev/zero", EBADMSG},
                                       {"kill -SEGV $$", EBADMSG}}) {
        EXPECT_EQ(run(script, tests::longestWait).error().code, code) << script;
    }
    EXPECT_TRUE(run("printf 'QIB1\\074\\0\\0\\0'; exec cat /dev/zero", tests::longestWait));
    EXPECT_EQ(
        library(seconds(4), scratch / "none")->QICreateIconFromCachedBitmap(data).error().code,
        ENOENT);
    for (const auto& bytes : {QSData{}, QSData(8, 'Q'), QSData{'Q', 'I', 'C', 'B', 0, 0, 0, 0, 1},
                              QSData{'Q', 'I', 'C', 'B', 1, 4, 0, 0, 1}}) {
        EXPECT_EQ(library()->QICreateIconFromCachedBitmap(bytes).error().code, EINVAL);
    }
}

}  // namespace
}  // namespace platform

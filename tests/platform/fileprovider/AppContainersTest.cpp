#include <gmock/gmock.h>

#include <semaphore>

#include "tests/support/InstalledPlatform.h"

namespace tests {
namespace {

using namespace platform;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Key;
using testing::SizeIs;
namespace fs = std::filesystem;

class AppContainersTest : public InstalledPlatform {
  protected:
    BundleRef bundle(const std::string& identifier) const {
        return std::make_shared<const QLBundleProxy>(QLBundleProxy{
            .bundleIdentifier = identifier,
            .dataContainerURL =
                QSURL::fileURLWithPath("/private/var/tidewell/Containers/" + identifier),
            .displayName = {},
            .dataContainerPath = scratch / ("containers/" + identifier)});
    }
    bool isShown(const std::string& identifier) const {
        const auto root =
            QSURL::fileURLWithPath("/private/var/tidewell/Containers/" + identifier + "/Documents");
        return installed->files().freshAttributes(root).has_value();
    }
    std::size_t roots() const { return installed->volume().statistics().roots.size(); }
};

TEST_F(AppContainersTest, LetsInExactlyThoseThatAreNamed) {
    const std::vector both{bundle("org.a"), bundle("org.b")};
    EXPECT_THAT(installed->containers().show(both), IsEmpty());
    EXPECT_TRUE(fs::is_directory(scratch / "containers/org.a/Documents"));
    EXPECT_TRUE(isShown("org.a") && isShown("org.b"));
    EXPECT_EQ(roots(), 3U);
    (void)scratch.makeFile("containers/org.a/Documents/note");
    EXPECT_THAT(installed->containers().show(std::span(both).last(1)), IsEmpty());
    EXPECT_FALSE(isShown("org.a"));
    EXPECT_TRUE(fs::exists(scratch / "containers/org.a/Documents/note"));
    EXPECT_EQ(roots(), 2U);
    EXPECT_THAT(installed->containers().show({}), IsEmpty());
    EXPECT_EQ(roots(), 1U);
}

TEST_F(AppContainersTest, WhatIsNoContainerOfThisVolumeIsRefused) {
    const auto code = [&](const fs::path& path) {
        const auto url = installed->containers().URLForContainer("org.a", path);
        return url ? 0 : url.error().code;
    };
    EXPECT_EQ(code(scratch / "not/there/yet"), 0);
    EXPECT_EQ(code("/proc/self"), EXDEV);
    EXPECT_EQ(code(storage() / "inside"), EINVAL);
    EXPECT_EQ(code(scratch.path()), EINVAL);
    fs::create_directory_symlink("/proc", scratch / "far");
    EXPECT_EQ(code(scratch / "far"), EXDEV);
    EXPECT_EQ(code(scratch.makeFile("file")), ENOTDIR);
    // A library that is a link out of its container.
    scratch.makeFolder("containers/org.link");
    fs::create_directory_symlink(storage(), scratch / "containers/org.link/Documents");
    EXPECT_THAT(installed->containers().show(std::vector{bundle("org.link"), bundle("org.a")}),
                ElementsAre(Key("org.link")));
    EXPECT_TRUE(isShown("org.a"));
    EXPECT_EQ(roots(), 2U);
    EXPECT_THAT(logged(LogLevel::Error, "can't show the documents of org.link; "), SizeIs(1));
}

TEST_F(AppContainersTest, AContainerThatIsReplacedIsFoundAgain) {
    std::counting_semaphore<> read{0};
    adjustRegistry = [&](QLApplicationWorkspace::Configuration& configuration) {
        configuration.rest = std::chrono::milliseconds(20);
        configuration.afterReading = [&read, inner = configuration.afterReading] {
            inner();
            read.release();
        };
    };
    restart();
    read.acquire();
    (void)installApplication("org.a", "A", "X-Quenby-SupportsDocumentBrowser=true\n");
    installed->workspace().refresh();
    EXPECT_THAT(installed->containers().show(
                    std::vector{installed->workspace().bundleProxyForIdentifier("org.a")}),
                IsEmpty());
    fs::rename(scratch / "containers/org.a", scratch / "elsewhere");
    (void)scratch.makeFile("containers/org.a/Documents/note");
    const auto note =
        QSURL::fileURLWithPath("/private/var/tidewell/Containers/org.a/Documents/note");
    while (!installed->files().freshAttributes(note)) read.acquire();
    EXPECT_EQ(roots(), 2U);
    installed->workspace().stop();
}

}  // namespace
}  // namespace tests

#include <gmock/gmock.h>

#include "platform/tree/TreeLayout.h"
#include "tests/support/InstalledPlatform.h"

namespace tests {
namespace {

using testing::SizeIs;
namespace fs = std::filesystem;

class AppContainersTest : public InstalledPlatform {
  protected:
    AppContainersTest() { (void)makeNote("org.a"); }
    fs::path makeNote(const std::string& identifier) const {
        return scratch.makeFile("containers/" + identifier + "/Documents/note");
    }
    bool isShown(const std::string& identifier) const {
        const auto note =
            libraryRootInContainer(containerURL(identifier)).URLByAppendingPathComponent("note");
        return installed->files().freshAttributes(note).has_value();
    }
    std::size_t roots() const { return installed->volume().statistics().roots.size(); }
};

TEST_F(AppContainersTest, WhatIsNoContainerOfThisVolumeIsRefusedAndLookedForAgain) {
    const auto code = [&](const fs::path& path) {
        const auto url = installed->containers().URLForContainer("org.a", path);
        return url ? 0 : url.error().code;
    };
    fs::create_directory_symlink("/proc", scratch / "far");
    for (const auto& [path, expected] :
         std::vector<std::pair<fs::path, int>>{{scratch / "not/there/yet", 0},
                                               {"/proc/self", EXDEV},
                                               {scratch / "far", EXDEV},
                                               {storage() / "inside", EINVAL},
                                               {scratch.path(), EINVAL},
                                               {scratch.makeFile("file"), ENOTDIR}}) {
        EXPECT_EQ(code(path), expected) << path;
    }
    // A library that is a link out of its container, until it is none.
    scratch.makeFolder("containers/org.link");
    fs::create_directory_symlink(storage(), scratch / "containers/org.link/Documents");
    EXPECT_THAT(installed->containers().show(std::vector{bundle("org.link"), bundle("org.a")}),
                testing::ElementsAre(testing::Key("org.link")));
    EXPECT_TRUE(isShown("org.a"));
    EXPECT_EQ(roots(), 2U);
    EXPECT_THAT(logged(LogLevel::Error, "can't show the documents of org.link; "), SizeIs(1));
    fs::remove(scratch / "containers/org.link/Documents");
    (void)makeNote("org.link");
    installed->containers().lookAgain();
    EXPECT_TRUE(isShown("org.link"));
    // One that was replaced is found again.
    fs::rename(scratch / "containers/org.a", scratch / "elsewhere");
    (void)makeNote("org.a");
    installed->containers().lookAgain();
    EXPECT_TRUE(isShown("org.a"));
    EXPECT_EQ(roots(), 3U);
    EXPECT_THAT(installed->containers().show({}), testing::IsEmpty());
    EXPECT_FALSE(isShown("org.a"));
    EXPECT_EQ(roots(), 1U);
}

}  // namespace
}  // namespace tests

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <array>
#include <fstream>

#include "platform/registry/DesktopEntry.h"
#include "tests/platform/registry/RegistryFixture.h"

namespace tests {
namespace {

using namespace platform;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
namespace fs = std::filesystem;
using enum QLApplicationType;

const std::string browser = "X-Quenby-SupportsDocumentBrowser=true\n";

class WorkspaceTest : public RegistryFixture {};

TEST_F(WorkspaceTest, TheFirstFolderWithAnEntryOfThatNameDecides) {
    entry("usr/share/applications/org.a.desktop", "System");
    entry("local/share/applications/org.a.desktop", "Local");
    entry("usr/share/applications/org.b.desktop", "Masked");
    entry("home/share/applications/org.b.desktop", "Gone", "Hidden=true\n");
    entry("usr/share/applications/org.c.desktop", "Masked by a link");
    entry("home/share/applications/org.c.desktop", "Link", "Type=Link\n");
    entry("usr/share/applications/kde/tool.desktop", "Below");
    entry("usr/share/applications/org.d.desktop", "Good");
    scratch.makeFile("home/share/applications/org.d.desktop", "half writ");
    entry("flatpak/exports/share/applications/org.e.desktop", "Flatpak", "X-Flatpak=org.e\n");
    entry("usr/share/applications/org.e.desktop", "Native");
    entry("home/share/flatpak/exports/share/applications/org.f.desktop", "F", "X-Flatpak=org.f\n");
    scratch.makeFile("etc/installations.d/1.conf",
                     "[Installation \"x\"]\nPath=" + (scratch / "extra").string() + "\n");
    entry("extra/exports/share/applications/org.g.desktop", "Extra", "X-Flatpak=org.g\n");
    open();
    EXPECT_THAT(listed(User), ElementsAre("org.f F"));
    EXPECT_THAT(listed(System), ElementsAre("kde-tool Below", "org.a Local", "org.d Good",
                                            "org.e Flatpak", "org.g Extra"));
    EXPECT_THAT(troubles, ElementsAre(HasSubstr("home/share/applications/org.d.desktop")));
    // Where the environment names Flatpak's folder, its place there holds.
    configuration.sources.dataFolders.push_back(scratch / "flatpak/exports/share");
    open();
    EXPECT_THAT(listed(System), Contains("org.e Native"));
}

TEST_F(WorkspaceTest, OneApplicationMayHaveSeveralEntriesAndFormerNames) {
    const std::string flatpak = "X-Flatpak=org.new\n";
    const std::string applications = "flatpak/exports/share/applications/";
    entry(applications + "org.new-Handler.desktop", "Handler", flatpak + "NoDisplay=true\n");
    entry(applications + "a.desktop", "Other window", flatpak);
    entry(applications + "org.new.desktop", "Main",
          flatpak + browser +
              "X-Flatpak-RenamedFrom=org.old.desktop;../"
              "x.desktop;\nIcon=pen\nIcon[sr]=olovka\n");
    entry(applications + "org.bad.desktop", "Bad", "X-Flatpak=../../etc\n");
    entry("usr/share/applications/org.only.desktop", "Only", "NoDisplay=true\n");
    scratch.makeFolder("containers/org.old/Documents");
    open();
    EXPECT_THAT(listed(System), ElementsAre("org.new Main", "org.only Only"));
    const auto main = workspace->applicationProxyForIdentifier("org.old");
    ASSERT_TRUE(main);
    EXPECT_EQ(main, workspace->applicationProxyForIdentifier("org.new"));
    EXPECT_EQ(main->dataContainerPath, scratch / "containers/org.old");
    EXPECT_EQ(main->iconName, "olovka");
    EXPECT_EQ(main->dataFolder, scratch / "flatpak/exports/share");
    constexpr std::array<std::string_view, 2> keys = {supportsDocumentBrowserInfoKey, "Other"};
    EXPECT_TRUE(main->objectsForInfoDictionaryKeys(keys).boolForKey(keys[0]));
    EXPECT_FALSE(main->objectsForInfoDictionaryKeys(keys).boolForKey(keys[1]));
    EXPECT_FALSE(workspace->bundleProxyForIdentifier(""));
    // As long as it is installed under the old name too, that one has its own.
    entry("usr/share/applications/org.old.desktop", "Old");
    workspace->refresh();
    EXPECT_EQ(workspace->bundleProxyForIdentifier("org.old")->displayName, "Old");
    EXPECT_EQ(workspace->bundleProxyForIdentifier("org.new")->dataContainerPath,
              scratch / "containers/org.new");
}

TEST(DesktopEntryTest, NamesAreMatchedByLocale) {
    EXPECT_THAT(localeNames("sr_RS.UTF-8@latin"),
                ElementsAre("sr_RS@latin", "sr_RS", "sr@latin", "sr"));
    EXPECT_THAT(localeNames("de"), ElementsAre("de"));
    const std::string text =
        "# comment\n[Desktop Entry]\nName=Pen\nName[sr]=Sr\nName[sr@latin]=L\n"
        "Name[de]=Stift\nName[fr_FR]=Plume\\sd\n";
    const auto named = [&](std::string_view locale) {
        return parseDesktopEntry(text, localeNames(locale))->name;
    };
    EXPECT_EQ(named("sr_RS.UTF-8@latin"), "L");
    EXPECT_EQ(named("sr_RS"), "Sr");
    EXPECT_EQ(named("de_AT"), "Stift");
    EXPECT_EQ(named("fr_FR"), "Plume d");
    EXPECT_EQ(named("fr_CA"), "Pen");
}

TEST(DesktopEntryTest, AnyBytesAreAnEntryOrAnError) {
    const std::string head = "[Desktop Entry]\n";
    const auto flags = parseDesktopEntry(
        head + "X-Quenby-SupportsOpenInPlace=true\nX-Quenby-FileSharingEnabled=yes\n", {});
    EXPECT_EQ(flags->flags.openInPlace, true);
    EXPECT_EQ(flags->flags.fileSharing, std::nullopt);
    EXPECT_TRUE(parseDesktopEntry(head + "junk\nName=a\n[Other]\nName=b\n", {})->name == "a");
    EXPECT_EQ(parseDesktopEntry(head + "Name=\xff\xfe\n", {})->name, "");
    for (const std::string text : {"", "Name=a\n", "[Other]\nName=a\n", "[Desktop Entry\nName=a"}) {
        EXPECT_FALSE(parseDesktopEntry(text, {})) << text;
    }
    std::string nul = head + "Name=a";
    nul += std::string("\0b\n", 3);
    (void)parseDesktopEntry(nul, {});
    for (const auto* bad : {"", ".", "..", ".a", "a/b", "a\nb", "\xff"}) {
        EXPECT_FALSE(isBundleIdentifier(bad)) << bad;
    }
    EXPECT_FALSE(isBundleIdentifier(std::string(241, 'a')));
    EXPECT_TRUE(isBundleIdentifier("org.example.App"));
}

TEST_F(WorkspaceTest, StrangeFilesDoNoHarm) {
    const auto applications = scratch.makeFolder("usr/share/applications");
    entry("usr/share/applications/org.a.desktop", "A");
    fs::create_directory_symlink(applications, applications / "loop");
    fs::create_directory_symlink(applications / "loop/loop", applications / "again");
    fs::create_symlink("self.desktop", applications / "self.desktop");
    fs::create_symlink("/nowhere", applications / "dangling.desktop");
    fs::create_symlink("/dev/zero", applications / "device.desktop");
    ASSERT_EQ(mkfifo((applications / "fifo.desktop").c_str(), 0600), 0);
    fs::create_directory(applications / "folder.desktop");
    scratch.makeFile("usr/share/applications/huge.desktop", "[Desktop Entry]\n");
    fs::resize_file(applications / "huge.desktop", mostEntryBytes + 1);
    std::string deep = "usr/share/applications/";
    for (int depth = 0; depth < 12; ++depth) deep += "d/";
    entry(deep + "deep.desktop", "Deep");
    open();
    EXPECT_THAT(listed(System), ElementsAre("org.a A"));
    EXPECT_THAT(troubles, ElementsAre(HasSubstr("nest too deeply"), HasSubstr("huge.desktop")));
    troubles.clear();
    workspace->refresh();  // what is known to be wrong is not said again
    EXPECT_THAT(troubles, IsEmpty());
    fs::rename(applications / "org.a.desktop", applications / "org.b.desktop");
    fs::remove(applications / "huge.desktop");
    entry("usr/share/applications/huge.desktop", "Mended");
    workspace->refresh();
    EXPECT_THAT(listed(System), ElementsAre("huge Mended", "org.b A"));
}

TEST_F(WorkspaceTest, TheUsersOverridesGoBeforeWhatAnApplicationSays) {
    const auto path = entry("usr/share/applications/org.a.desktop", "A", browser);
    entry("usr/share/applications/org.b.desktop", "B");
    open();
    using enum QLApplicationWorkspace::Override;
    const auto state = [&](std::string_view identifier) {
        const auto bundle = workspace->bundleProxyForIdentifier(identifier);
        return std::pair(bundle->supportsDocumentBrowser, bundle->hasOverride);
    };
    int posted = 0;
    configuration.notifications->addObserver(this, std::string(applicationRegisteredNotification),
                                             [&](const void*) { ++posted; });
    ASSERT_TRUE(workspace->setOverride("org.a", Deny));
    ASSERT_TRUE(workspace->setOverride("org.b", Allow));
    EXPECT_EQ(posted, 2);
    EXPECT_EQ(state("org.a"), std::pair(false, true));
    EXPECT_EQ(state("org.b"), std::pair(true, true));
    open();  // it is the files that count
    EXPECT_EQ(state("org.b"), std::pair(true, true));
    ASSERT_TRUE(workspace->setOverride("org.a", Remove));
    ASSERT_TRUE(workspace->setOverride("org.a", Remove));
    EXPECT_EQ(state("org.a"), std::pair(true, false));
    std::ofstream(scratch / "config/applications/org.b.override") << "rubbish";
    workspace->refresh();
    EXPECT_EQ(state("org.b"), std::pair(false, false));
    EXPECT_EQ(workspace->setOverride("org.none", Allow).error().code, ENOENT);
    EXPECT_EQ(workspace->setOverride("../org.a", Remove).error().code, EINVAL);
    configuration.notifications->removeEveryObserver(this);
}

TEST_F(WorkspaceTest, ContainersThatCannotBePresentedAreNamedForThoseThatWantThem) {
    configuration.presentContainer = [](std::string_view identifier, const std::string& path) {
        if (identifier == "org.ok") return Result<QSURL>(QSURL::fileURLWithPath("/c/org.ok"));
        return Result<QSURL>(std::unexpected(errorFromErrno(EXDEV, path)));
    };
    for (const auto* name : {"org.ok", "org.far"}) {
        entry("usr/share/applications/" + std::string(name) + ".desktop", name, browser);
    }
    entry("usr/share/applications/org.silent.desktop", "Silent");
    open();
    EXPECT_EQ(workspace->bundleProxyForIdentifier("org.ok")->dataContainerURL->path(), "/c/org.ok");
    const auto far = workspace->bundleProxyForIdentifier("org.far");
    EXPECT_FALSE(far->dataContainerURL);
    EXPECT_TRUE(far->containerTrouble);
    EXPECT_THAT(troubles, ElementsAre(HasSubstr("can't show the documents of org.far; ")));
}

/// Waits for notifications of what happens on disk.
class WorkspaceWatchTest : public RegistryFixture {
  protected:
    WorkspaceWatchTest() {
        const auto release = [](auto& semaphore) {
            return [&semaphore](const void*) { semaphore.release(); };
        };
        auto& center = *configuration.notifications;
        center.addObserver(this, std::string(applicationRegisteredNotification),
                           release(registered));
        center.addObserver(this, std::string(applicationUnregisteredNotification),
                           release(unregistered));
        configuration.afterReading = [this] { read.release(); };
    }
    ~WorkspaceWatchTest() override { workspace.reset(); }
    void follow() {
        open().follow();
        read.acquire();
    }

    std::counting_semaphore<> registered{0};
    std::counting_semaphore<> unregistered{0};
    std::counting_semaphore<> read{0};
};

TEST_F(WorkspaceWatchTest, NoticesFoldersThatAreMadeAndWhatHappensInThem) {
    follow();
    EXPECT_TRUE(workspace->isWatchedWhole());
    EXPECT_THAT(listed(User), IsEmpty());
    const auto path = entry("home/share/applications/org.a.desktop", "A");
    registered.acquire();
    EXPECT_THAT(listed(User), ElementsAre("org.a A"));
    entry("home/share/applications/sub/b.desktop", "B");
    registered.acquire();
    EXPECT_THAT(listed(User), SizeIs(2));
    std::ofstream(path, std::ios::app) << browser;
    registered.acquire();
    EXPECT_TRUE(workspace->bundleProxyForIdentifier("org.a")->supportsDocumentBrowser);
    fs::rename(scratch / "home/share/applications", scratch / "away");
    unregistered.acquire();
    EXPECT_THAT(listed(User), IsEmpty());
    fs::rename(scratch / "away", scratch / "home/share/applications");
    registered.acquire();
    scratch.makeFile("config/applications/org.a.override",
                     "[Desktop Entry]\nX-Quenby-SupportsDocumentBrowser=false\n");
    registered.acquire();
    EXPECT_FALSE(workspace->bundleProxyForIdentifier("org.a")->supportsDocumentBrowser);
}

TEST_F(WorkspaceWatchTest, ReadsNowAndThenWhereWatchesAreMissing) {
    scratch.makeFolder("usr/share/applications");
    configuration.mostWatches = 1;
    configuration.unwatchedPeriod = std::chrono::milliseconds(20);
    follow();
    EXPECT_FALSE(workspace->isWatchedWhole());
    entry("usr/share/applications/org.a.desktop", "A");
    registered.acquire();
    // Stopping ends it whatever it waits for, and nothing is posted afterwards.
    workspace->stop();
    while (registered.try_acquire()) continue;
    entry("usr/share/applications/org.b.desktop", "B");
    EXPECT_FALSE(registered.try_acquire());
}

}  // namespace
}  // namespace tests

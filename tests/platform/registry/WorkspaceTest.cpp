#include <gmock/gmock.h>
#include <sys/stat.h>

#include <array>
#include <semaphore>

#include "platform/registry/DesktopEntry.h"
#include "platform/registry/QLApplicationWorkspace.h"
#include "tests/support/Await.h"
#include "tests/support/ScratchFolder.h"

namespace tests {
namespace {

using namespace platform;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
namespace fs = std::filesystem;
using enum QLApplicationType;
using enum QLApplicationWorkspace::Override;

const std::string browser = "X-Quenby-SupportsDocumentBrowser=true\n";

/// A registry over scratch folders, which are not there yet.
class WorkspaceTest : public testing::Test {
  protected:
    WorkspaceTest() {
        configuration.sources = {.dataHome = scratch / "home/share",
                                 .dataFolders = {scratch / "local/share", scratch / "usr/share"},
                                 .flatpakUser = scratch / "home/share/flatpak",
                                 .flatpakSystem = scratch / "flatpak",
                                 .flatpakInstallations = scratch / "etc/installations.d",
                                 .containers = scratch / "containers",
                                 .overrides = scratch / "config/applications",
                                 .languages = localeNames("sr_RS.UTF-8@latin")};
        configuration.report = [this](const std::string& trouble) { troubles.push_back(trouble); };
        configuration.afterReading = [this] { read.release(); };
        configuration.rest = std::chrono::milliseconds(20);
        auto& center =
            *(configuration.notifications = std::make_shared<QSDistributedNotificationCenter>());
        center.addObserver(this, std::string(applicationRegisteredNotification),
                           [this](const void*) { registered.release(); });
        center.addObserver(this, std::string(applicationUnregisteredNotification),
                           [this](const void*) { unregistered.release(); });
    }
    ~WorkspaceTest() override { workspace.reset(); }

    void open() { workspace = std::make_unique<QLApplicationWorkspace>(configuration); }
    void follow() {
        workspace.reset();
        while (read.try_acquire()) continue;
        open();
        workspace->follow();
        EXPECT_TRUE(await("the first reading", read));
    }
    /// An entry at a path below the scratch folder.
    void entry(const std::string& path, const std::string& name, const std::string& lines = {}) {
        scratch.makeFile(path, "[Desktop Entry]\nType=Application\nName=" + name + "\n" + lines);
    }
    /// "ID name", sorted by ID.
    [[nodiscard]] std::vector<std::string> listed(QLApplicationType type) const {
        std::vector<std::string> found;
        workspace->enumerateApplicationsOfType(type, [&](const auto& application) {
            found.push_back(*application->bundleIdentifier + " " +
                            application->localizedName().value_or("-"));
        });
        return found;
    }
    /// Whether the documents are offered, and whether the user has a say in it.
    [[nodiscard]] std::pair<bool, bool> state(std::string_view identifier) const {
        const auto bundle = workspace->bundleProxyForIdentifier(identifier);
        return {bundle->supportsDocumentBrowser, bundle->hasOverride};
    }

    ScratchFolder scratch;
    QLApplicationWorkspace::Configuration configuration;
    std::vector<std::string> troubles;
    std::counting_semaphore<> registered{0};
    std::counting_semaphore<> unregistered{0};
    std::counting_semaphore<> read{0};
    std::unique_ptr<QLApplicationWorkspace> workspace;
};

TEST_F(WorkspaceTest, TheFirstFolderWithAnEntryOfThatNameDecides) {
    for (const auto& [folder, name, text, lines] : std::vector<std::array<std::string, 4>>{
             {"usr", "org.a", "System", ""},
             {"local", "org.a", "Local", ""},
             {"usr", "org.b", "Masked", ""},
             {"home", "org.b", "Hidden", "Hidden=true\n"},
             {"usr", "org.c", "Masked by a link", ""},
             {"home", "org.c", "Link", "Type=Link\n"},
             {"usr", "kde/tool", "Below", ""},
             {"usr", "org.d", "Good", ""},
             {"usr", "org.e", "Native", ""},
             {"flatpak/exports", "org.e", "Flatpak", "X-Flatpak=org.e\n"},
             {"home/share/flatpak/exports", "org.f", "F", "X-Flatpak=org.f\n"},
             {"extra/exports", "org.g", "Extra", "X-Flatpak=org.g\n"}}) {
        entry(folder + "/share/applications/" + name + ".desktop", text, lines);
    }
    scratch.makeFile("home/share/applications/org.d.desktop", "half writ");
    scratch.makeFile("etc/installations.d/1.conf",
                     "[Installation \"x\"]\nPath=" + (scratch / "extra").string() + "\n");
    open();
    EXPECT_THAT(listed(User), ElementsAre("org.f F"));
    EXPECT_THAT(listed(System), ElementsAre("kde-tool Below", "org.a Local", "org.d Good",
                                            "org.e Flatpak", "org.g Extra"));
    EXPECT_THAT(troubles, ElementsAre(HasSubstr("home/share/applications/org.d.desktop")));
    // Where the environment names Flatpak's folder, its place there holds.
    configuration.sources.dataFolders.push_back(scratch / "flatpak/exports/share");
    open();
    EXPECT_THAT(listed(System), testing::Contains("org.e Native"));
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

TEST(DesktopEntryTest, AnyBytesAreAnEntryOrAnError) {
    const std::string head = "[Desktop Entry]\n";
    const auto text = "# comment\n" + head +
                      "Name=Pen\nName[sr]=Sr\nName[sr@latin]=L\nName[de]=Stift\n"
                      "Name[fr_FR]=Plume\\sd\njunk\n[Other]\nName=b\n";
    for (const auto& [locale, name] : {std::pair("sr_RS.UTF-8@latin", "L"),
                                       {"sr_RS", "Sr"},
                                       {"de_AT", "Stift"},
                                       {"fr_FR", "Plume d"},
                                       {"fr_CA", "Pen"}}) {
        EXPECT_EQ(parseDesktopEntry(text, localeNames(locale))->name, name) << locale;
    }
    const auto flags = parseDesktopEntry(
        head + "X-Quenby-SupportsOpenInPlace=true\nX-Quenby-FileSharingEnabled=yes\n", {});
    EXPECT_EQ(flags->flags.openInPlace, true);
    EXPECT_EQ(flags->flags.fileSharing, std::nullopt);
    EXPECT_EQ(parseDesktopEntry(head + "Name=\xff\xfe\n", {})->name, "");
    for (const std::string bad : {"", "Name=a\n", "[Other]\nName=a\n", "[Desktop Entry\nName=a"}) {
        EXPECT_FALSE(parseDesktopEntry(bad, {})) << bad;
    }
    const std::string tooLong(241, 'a');
    for (const auto* bad : {"", ".", "..", ".a", "a/b", "a\nb", "\xff", tooLong.c_str()}) {
        EXPECT_FALSE(isBundleIdentifier(bad)) << bad;
    }
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
    entry("usr/share/applications/1/2/3/4/5/6/7/8/9/deep.desktop", "Deep");
    // A container that cannot be presented is named for those that want theirs.
    configuration.presentContainer = [](std::string_view, const std::string& path) {
        return Result<QSURL>(std::unexpected(errorFromErrno(EXDEV, path)));
    };
    entry("usr/share/applications/org.far.desktop", "Far", browser);
    open();
    EXPECT_THAT(listed(System), ElementsAre("org.a A", "org.far Far"));
    EXPECT_THAT(troubles, ElementsAre(HasSubstr("can't show the documents of org.far; "),
                                      HasSubstr("nest too deeply"), HasSubstr("huge.desktop")));
    EXPECT_FALSE(workspace->bundleProxyForIdentifier("org.far")->dataContainerURL);
    EXPECT_TRUE(workspace->bundleProxyForIdentifier("org.far")->containerTrouble);
    troubles.clear();
    workspace->refresh();  // what is known to be wrong is not said again
    EXPECT_THAT(troubles, IsEmpty());
    fs::rename(applications / "org.a.desktop", applications / "org.b.desktop");
    fs::remove(applications / "huge.desktop");
    entry("usr/share/applications/huge.desktop", "Mended");
    workspace->refresh();
    EXPECT_THAT(listed(System), ElementsAre("huge Mended", "org.b A", "org.far Far"));
}

TEST_F(WorkspaceTest, TheUsersOverridesGoBeforeWhatAnApplicationSays) {
    entry("usr/share/applications/org.a.desktop", "A", browser);
    entry("usr/share/applications/org.b.desktop", "B");
    open();
    for (const auto& [identifier, given] : {std::pair("org.a", Deny), {"org.b", Allow}}) {
        ASSERT_TRUE(workspace->setOverride(identifier, given));
        EXPECT_TRUE(registered.try_acquire()) << identifier;
        EXPECT_EQ(state(identifier), std::pair(given == Allow, true));
    }
    open();  // it is the files that count
    EXPECT_EQ(state("org.b"), std::pair(true, true));
    for (int times = 0; times < 2; ++times) {
        ASSERT_TRUE(workspace->setOverride("org.a", Remove));
        EXPECT_EQ(state("org.a"), std::pair(true, false));
    }
    scratch.makeFile("config/applications/org.b.override", "rubbish");
    workspace->refresh();
    EXPECT_EQ(state("org.b"), std::pair(false, false));
    EXPECT_EQ(workspace->setOverride("org.none", Allow).error().code, ENOENT);
    EXPECT_EQ(workspace->setOverride("../org.a", Remove).error().code, EINVAL);
}

TEST_F(WorkspaceTest, NoticesFoldersThatAreMadeAndWhatHappensInThem) {
    follow();
    EXPECT_TRUE(workspace->isWatchedWhole());
    EXPECT_THAT(listed(User), IsEmpty());
    entry("home/share/applications/org.a.desktop", "A");
    ASSERT_TRUE(await("an entry in a new folder", registered));
    EXPECT_THAT(listed(User), ElementsAre("org.a A"));
    entry("home/share/applications/sub/b.desktop", "B");
    ASSERT_TRUE(await("an entry below", registered));
    EXPECT_THAT(listed(User), ElementsAre("org.a A", "sub-b B"));
    std::ofstream(scratch / "home/share/applications/org.a.desktop", std::ios::app) << browser;
    ASSERT_TRUE(await("a flag", registered));
    EXPECT_EQ(state("org.a"), std::pair(true, false));
    fs::rename(scratch / "home/share/applications", scratch / "elsewhere");
    ASSERT_TRUE(await("the removal of the folder", unregistered));
    EXPECT_THAT(listed(User), IsEmpty());
    fs::rename(scratch / "elsewhere", scratch / "home/share/applications");
    ASSERT_TRUE(await("the folder again", registered));
    scratch.makeFile("config/applications/org.a.override",
                     "[Desktop Entry]\nX-Quenby-SupportsDocumentBrowser=false\n");
    ASSERT_TRUE(await("an override", registered));
    EXPECT_EQ(state("org.a"), std::pair(false, true));

    // Where watches are missing they are read now and then.
    configuration.mostWatches = 1;
    configuration.unwatchedPeriod = std::chrono::milliseconds(20);
    follow();
    EXPECT_FALSE(workspace->isWatchedWhole());
    entry("usr/share/applications/org.c.desktop", "C");
    ASSERT_TRUE(await("a periodic reading", registered));
    // Stopping ends it whatever it waits for, and nothing is posted afterwards.
    workspace->stop();
    while (registered.try_acquire()) continue;
    entry("usr/share/applications/org.d.desktop", "D");
    EXPECT_FALSE(registered.try_acquire());
}

}  // namespace
}  // namespace tests

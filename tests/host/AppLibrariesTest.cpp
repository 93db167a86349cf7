#include <gmock/gmock.h>

#include <map>
#include <mutex>
#include <set>

#include "host/documents/DocumentService.h"
#include "host/local/LocalSession.h"
#include "host/session/errors.h"
#include "tests/support/InstalledPlatform.h"
#include "tidewell/applibraries/AppLibraries.h"
#include "tidewell/fs/FSChangeToken.h"
#include "tidewell/provider/LocalFileProvider.h"

namespace {

using host::ItemRecord;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;
namespace fs = std::filesystem;

const std::string root(platform::QSFileProviderRootContainerItemIdentifier);
const std::string workingSet(platform::QSFileProviderWorkingSetContainerItemIdentifier);
const std::string allDirectories(platform::QSFileProviderAllDirectoriesContainerItemIdentifier);

using Service = std::unique_ptr<host::DocumentService>;

/// One who keeps a replica of a container out of its listing and changes alone.
class Client {
  public:
    Client(const Service& service, std::string container, bool isFollowing = false)
        : service_(service), container_(std::move(container)) {
        if (isFollowing) following_ = service_->session().follow(container_).value();
    }

    void readAll() {
        anchor_ = service_->anchor(container_).value();
        names_ = listed();
    }
    void sync() {
        ASSERT_TRUE(service_->waitUntilSettled());
        if (anchor_.empty()) readAll();
        for (; !catchUp(); ++restarts) readAll();
        EXPECT_EQ(names_, listed()) << container_;
    }
    [[nodiscard]] std::set<std::string> known() const {
        std::set<std::string> all;
        for (const auto& [identifier, name] : names_) all.insert(name);
        return all;
    }
    [[nodiscard]] std::uint64_t version() const { return token().appLibraryVersionToken; }
    /// Whether its anchor would be refused if it had that version.
    [[nodiscard]] bool isRefusedWith(std::uint64_t version) const {
        auto changed = token();
        changed.appLibraryVersionToken = version;
        const auto page = service_->session().changes(container_, changed.data());
        return !page && host::meansExpired(page.error());
    }

    int restarts = 0;

  private:
    using Names = std::map<std::string, std::string>;  // by identifier
    [[nodiscard]] tidewell::FSChangeToken token() const {
        return tidewell::FSChangeToken::fromData(anchor_).value();
    }
    [[nodiscard]] Names listed() const {
        Names present;
        EXPECT_TRUE(service_->list(container_, host::Order::ByName, [&](const ItemRecord& item) {
            return present.emplace(item.itemIdentifier, item.filename).second;
        }));
        return present;
    }
    /// False where the anchor has expired.
    bool catchUp() {
        const auto apply = [&](const host::ChangePage& page) {
            for (const auto& item : page.updates) names_[item.itemIdentifier] = item.filename;
            for (const auto& identifier : page.deletions) names_.erase(identifier);
            return true;
        };
        const auto reached = following_ ? service_->changes(*following_, anchor_, apply)
                                        : service_->changes(container_, anchor_, apply);
        if (!reached) return !host::meansExpired(reached.error());
        anchor_ = *reached;
        return true;
    }

    const Service& service_;
    std::string container_;
    std::unique_ptr<host::Following> following_;
    host::Anchor anchor_;
    Names names_;
};

/// A service whose app libraries are what a test says they are.
class AppLibrariesTest : public tests::InstalledPlatform {
  protected:
    AppLibrariesTest() {
        (void)installApplication("org.a", "Name of org.a");
        adjustVolume = [](platform::VolumeService::Configuration& configuration) {
            using std::chrono::milliseconds;
            configuration.windows = {milliseconds(5), milliseconds(40), milliseconds(200)};
        };
        reopen();
    }
    ~AppLibrariesTest() override { close(); }

    void close() {
        service.reset();
        libraries.reset();
        platform::mainQueue().sync([] {});
    }
    void reopen() {
        close();
        restart();
        libraries = tidewell::AppLibraries::load([this] {
            const std::scoped_lock lock(mutex);
            return fed;
        });
        service = std::make_unique<host::DocumentService>(std::make_unique<host::LocalSession>(
            [this] { return tidewell::makeLocalFileProvider(libraries); }));
    }
    /// `container`: the name of its folder, if it is not the identifier.
    void feed(const std::vector<std::string>& identifiers, const std::string& container = {}) {
        const std::scoped_lock lock(mutex);
        fed.clear();
        for (const auto& identifier : identifiers) fed.push_back(bundle(identifier, container));
    }
    void setApps(const std::vector<std::string>& identifiers) {
        feed(identifiers);
        (void)libraries->refresh();
    }
    void libraryFile(const std::string& below) const {
        (void)scratch.makeFile("containers/" + below);
    }

    const fs::path mainCache = scratch / "apps/Tidewell/app-libraries.plist";
    const fs::path searchableCache = scratch / "apps/Tidewell/searchable-app-libraries.plist";
    std::mutex mutex;
    std::vector<platform::BundleRef> fed;  // guarded by mutex
    std::shared_ptr<tidewell::AppLibraries> libraries;
    Service service;
};

TEST_F(AppLibrariesTest, TwoClientsOfAWideContainerMeetEveryAnswer) {
    libraryFile("org.a/Documents/folder/x");
    for (const auto& container : {root, allDirectories, workingSet}) {
        Client following(service, container, true);
        Client other(service, container);
        for (const auto& apps : std::vector<std::vector<std::string>>{
                 {"org.a"}, {"org.a", "org.b"}, {"org.b"}, {"org.a"}}) {
            setApps(apps);
            following.sync();  // no version, then an equal one that is upgraded
            following.sync();  // equal, nothing to upgrade
            other.sync();      // no version, then one that matches nothing
            EXPECT_EQ(following.known().contains("Name of org.b"), apps.back() == "org.b");
        }
        EXPECT_GT(following.version(), 0u);
        EXPECT_EQ(following.restarts, 0);
        EXPECT_EQ(other.restarts, 3);
        log->clear();
        EXPECT_TRUE(following.isRefusedWith(following.version() - 1));
        EXPECT_THAT(logged(platform::LogLevel::Info, "matches nothing, need to"), SizeIs(1));
        EXPECT_TRUE(following.isRefusedWith(following.version() + 1));
        EXPECT_THAT(logged(platform::LogLevel::Info, "app-library version is greater"),
                    SizeIs(container == workingSet ? 0 : 1));
    }
}

TEST_F(AppLibrariesTest, LibrariesStandBeforeTheDocumentsAndNoPageSurvivesAnotherSet) {
    for (int i = 0; i < 450; ++i) (void)file("f" + std::to_string(i));
    for (int i = 0; i < 30; ++i) libraryFile("org.a/Documents/a" + std::to_string(i));
    const auto page = [&](const auto& start) { return service->session().page(workingSet, start); };
    const auto after = [](const host::Page& before) { return before.next.value().value(); };
    for (const auto& [restarts, isAddedOnly] :
         {std::pair(false, false), {false, true}, {true, false}, {true, true}}) {
        setApps({});
        ASSERT_TRUE(service->waitUntilSettled());
        const auto third = after(page(after(page(host::Order::ByName))));
        setApps({"org.a"});
        if (!isAddedOnly) setApps({});
        if (restarts) reopen();
        const auto refused = page(third);
        EXPECT_TRUE(!refused.next && host::meansExpired(refused.next.error()));
        EXPECT_THAT(refused.items, IsEmpty());
    }
    // Another order is another set, but over the same roots in the same order.
    setApps({"org.a", "org.b"});
    const auto before = libraries->mainCache()->versionToken();
    const auto second = after(page(host::Order::ByName));
    setApps({"org.b", "org.a"});
    EXPECT_GT(libraries->mainCache()->versionToken(), before);
    EXPECT_TRUE(page(second).next);
    // The listing that begins again by itself: nothing twice, nothing left out.
    setApps({});
    std::set<std::string> met;
    ASSERT_TRUE(service->list(workingSet, host::Order::ByName, [&](const ItemRecord& item) {
        EXPECT_TRUE(met.insert(item.itemIdentifier).second) << item.filename;
        if (met.size() == 399) setApps({"org.a"});
        return true;
    }));
    EXPECT_THAT(met, SizeIs(450 + 30 + 1));

    const auto first = service->session().page(root, host::Order::ByDate).items.at(0);
    EXPECT_EQ(first.itemIdentifier, "#org.a");
    EXPECT_EQ(first.childItemCount, 30);
    EXPECT_THAT(service->session().page("#org.a", host::Order::ByName).items, SizeIs(30));
}

TEST_F(AppLibrariesTest, ASetThatCannotBeSavedIsReportedAgain) {
    Client following(service, workingSet, true);
    Client other(service, workingSet);
    setApps({});
    following.sync();
    other.sync();
    fs::remove(searchableCache);
    fs::create_directories(searchableCache / "in the way");
    setApps({"org.a"});
    for (int round = 0; round < 2; ++round) {
        following.sync();
        other.sync();  // by enumerators that end with the answer
        EXPECT_THAT(following.known(), testing::Contains("Name of org.a"));
    }
    EXPECT_THAT(logged(platform::LogLevel::Error, "can't save working-set cache to disk;"),
                testing::Not(IsEmpty()));

    fs::remove_all(searchableCache);
    following.sync();
    other.sync();
    setApps({"org.b"});
    following.sync();
    EXPECT_EQ(following.restarts + other.restarts, 0);
    EXPECT_THAT(following.known(), testing::Contains("Name of org.b"));

    // A set of the main cache is nobody's before it is saved.
    fs::remove(mainCache);
    fs::create_directories(mainCache / "in the way");
    const auto before = following.known();
    setApps({"org.c"});
    EXPECT_THAT(logged(platform::LogLevel::Error, "can't refresh app libraries;"), SizeIs(1));
    following.sync();
    EXPECT_EQ(following.known(), before);
}

TEST_F(AppLibrariesTest, ARestartChangesNothing) {
    setApps({"org.a", "org.b"});
    Client ofRoot(service, root);
    Client ofSet(service, workingSet);
    for (int run = 0; run < 2; ++run) {
        for (auto* client : {&ofSet, &ofRoot}) client->sync();
        EXPECT_EQ(ofRoot.restarts + ofSet.restarts, 0);
        reopen();
        (void)libraries->refresh();
    }
}

TEST_F(AppLibrariesTest, ALostCacheHidesNothing) {
    libraryFile("org.a/Documents/folder/a1");
    libraryFile("org.b/Documents/b1");
    setApps({"org.a", "org.b"});
    Client client(service, workingSet);
    Client unread(service, workingSet);
    client.sync();
    unread.readAll();
    // An application is removed while nothing says what was there.
    fs::remove(mainCache);
    feed({"org.b"});
    reopen();
    EXPECT_GT(libraries->mainCache()->versionToken(), client.version()) << "was never given out";
    for (auto* each : {&client, &unread}) each->sync();
    EXPECT_THAT(client.known(), UnorderedElementsAre("Name of org.b", "b1"));
    // What comes back is reported as it is now.
    fs::remove(scratch / "containers/org.a/Documents/folder/a1");
    libraryFile("org.a/Documents/a2");
    setApps({"org.a", "org.b"});
    client.sync();
    EXPECT_THAT(client.known(),
                UnorderedElementsAre("Name of org.a", "folder", "a2", "Name of org.b", "b1"));
    // The application may have its documents elsewhere one day.
    libraryFile("former a/Documents/other");
    feed({"org.a"}, "former a");
    EXPECT_TRUE(libraries->refresh());
    client.sync();
    EXPECT_THAT(client.known(), UnorderedElementsAre("Name of org.a", "other"));
    EXPECT_EQ(client.restarts + unread.restarts, 0);
}

TEST_F(AppLibrariesTest, ACacheThatCanBeNeitherReadNorWrittenHidesNothing) {
    libraryFile("org.a/Documents/a1");
    setApps({"org.a"});
    Client ofRoot(service, root);
    Client ofSet(service, workingSet);
    for (auto* client : {&ofSet, &ofRoot}) client->sync();
    fs::remove(mainCache);
    fs::create_directories(mainCache / "in the way");
    for (int run = 0; run < 2; ++run) {
        reopen();
        EXPECT_FALSE(libraries->refresh());
        for (auto* client : {&ofSet, &ofRoot}) client->sync();
        EXPECT_EQ(ofSet.restarts + ofRoot.restarts, 2) << "nothing is reported deleted";
        EXPECT_THAT(ofSet.known(), UnorderedElementsAre("Name of org.a", "a1"));
    }
    fs::remove_all(mainCache);
    EXPECT_TRUE(libraries->refresh()) << "by this or by the provider itself";
    ofSet.sync();
    EXPECT_EQ(ofSet.restarts, 1);
    EXPECT_THAT(ofSet.known(), UnorderedElementsAre("Name of org.a", "a1"));
}

}  // namespace

#include <gmock/gmock.h>

#include <map>
#include <set>

#include "host/Search.h"
#include "host/errors.h"
#include "tests/support/FedAppLibraries.h"
#include "tidewell/fs/FSChangeToken.h"
#include "tidewell/provider/LocalFileProvider.h"

namespace {

using host::Anchor;
using host::ChangePage;
using host::ItemRecord;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::Not;
using testing::SizeIs;
using testing::UnorderedElementsAre;

const std::string root(platform::QSFileProviderRootContainerItemIdentifier);
const std::string workingSet(platform::QSFileProviderWorkingSetContainerItemIdentifier);
const std::string allDirectories(platform::QSFileProviderAllDirectoriesContainerItemIdentifier);

/// One who keeps a replica of a container out of its listing and changes alone.
class Client {
  public:
    using Service = std::unique_ptr<host::DocumentService>;
    Client(const Service& service, std::string container, bool isFollowing = false)
        : service_(service), container_(std::move(container)) {
        if (isFollowing) following_ = service_->follow(container_).value();
    }

    void readAll() {
        anchor = service_->anchor(container_).value();
        names = listed();
    }
    void sync() {
        ASSERT_TRUE(service_->settle());
        for (;;) {
            if (!anchor) readAll();
            const auto apply = [&](const ChangePage& page) {
                for (const auto& item : page.updates) names[item.itemIdentifier] = item.filename;
                for (const auto& identifier : page.deletions) names.erase(identifier);
                return true;
            };
            auto reached = following_ ? service_->changes(*following_, *anchor, apply)
                                      : service_->changes(container_, *anchor, apply);
            if (reached) {
                anchor = std::move(*reached);
                break;
            }
            ASSERT_TRUE(host::meansExpired(reached.error())) << reached.error().description();
            ++restarts;
            anchor.reset();
        }
        EXPECT_EQ(names, listed()) << container_;
    }
    [[nodiscard]] std::set<std::string> known() const {
        std::set<std::string> all;
        for (const auto& [identifier, name] : names) all.insert(name);
        return all;
    }
    [[nodiscard]] std::uint64_t version() const {
        return tidewell::FSChangeToken::fromData(anchor.value()).value().appLibraryVersionToken;
    }

    std::optional<Anchor> anchor;
    std::map<std::string, std::string> names;
    int restarts = 0;

  private:
    [[nodiscard]] std::map<std::string, std::string> listed() const {
        std::map<std::string, std::string> present;
        EXPECT_TRUE(service_->list(container_, host::Order::ByName, [&](const ItemRecord& item) {
            present[item.itemIdentifier] = item.filename;
            return true;
        }));
        return present;
    }

    const Service& service_;
    std::string container_;
    std::unique_ptr<host::Following> following_;
};

class AppLibrariesTest : public tests::FedAppLibraries {
  protected:
    AppLibrariesTest() {
        (void)installApplication("org.a", "Name of org.a");
        adjustVolume = [](platform::VolumeService::Configuration& configuration) {
            using std::chrono::milliseconds;
            configuration.windows = {milliseconds(5), milliseconds(40), milliseconds(200)};
        };
        restart();
        open();
    }
    ~AppLibrariesTest() override { close(); }

    void open() {
        load();
        service = std::make_unique<host::DocumentService>(
            [this] { return tidewell::makeLocalFileProvider(libraries); });
    }
    void close() {
        service.reset();
        libraries.reset();
        platform::mainQueue().sync([] {});
    }
    void reopen() {
        close();
        restart();
        open();
    }
    /// The error of changes from an anchor with another version.
    [[nodiscard]] platform::QSError changesWithVersion(const std::string& container,
                                                       const Anchor& anchor,
                                                       std::uint64_t version) const {
        auto token = tidewell::FSChangeToken::fromData(anchor).value();
        token.appLibraryVersionToken = version;
        const auto page = service->onePageOfChanges(container, token.data());
        return page ? platform::QSError{} : page.error();
    }

    std::unique_ptr<host::DocumentService> service;
};

TEST_F(AppLibrariesTest, TwoClientsOfTheWorkingSetMeetEveryAnswer) {
    (void)file("own");
    libraryFile("org.a/Documents/a1");
    libraryFile("org.b/Documents/folder/b1");
    setApps({"org.a"});
    Client first(service, workingSet);
    Client second(service, workingSet);
    first.sync();
    second.sync();
    EXPECT_THAT(first.known(), UnorderedElementsAre("own", "Name of org.a", "a1"));
    EXPECT_GT(first.version(), 0u) << "the first changes after no version name one";

    setApps({"org.a", "org.b"});
    first.sync();  // equal, and upgraded
    EXPECT_EQ(first.restarts, 0);
    EXPECT_THAT(first.known(), IsSupersetOf({"Name of org.b", "folder", "b1"}));
    first.sync();   // equal, nothing to upgrade
    second.sync();  // matches nothing any more
    EXPECT_EQ(second.restarts, 1);

    setApps({"org.b"});
    second.sync();
    EXPECT_EQ(second.restarts, 1);
    EXPECT_THAT(second.known(), UnorderedElementsAre("own", "Name of org.b", "folder", "b1"));
    EXPECT_TRUE(std::filesystem::exists(scratch / "containers/org.a/Documents/a1"));
    for (const auto wrong : {first.version(), second.version() + 1}) {
        EXPECT_TRUE(host::meansExpired(changesWithVersion(workingSet, *second.anchor, wrong)));
    }
    EXPECT_THAT(logged(platform::LogLevel::Info, "app-library version is greater"), IsEmpty());
    EXPECT_THAT(logged(platform::LogLevel::Info, "matches nothing, need to restart"), SizeIs(3));

    // What comes back, and changed meanwhile, is told as it is now.
    std::filesystem::remove(scratch / "containers/org.b/Documents/folder/b1");
    setApps({});
    libraryFile("org.b/Documents/b2");
    setApps({"org.b"});
    second.sync();
    EXPECT_EQ(second.restarts, 1);
    EXPECT_THAT(second.known(), UnorderedElementsAre("own", "Name of org.b", "folder", "b2"));
}

TEST_F(AppLibrariesTest, AFollowerOfAWideContainerKeepsItsAnchorAndOthersStartAgain) {
    libraryFile("org.a/Documents/folder/x");
    setApps({"org.a"});
    for (const auto& container : {root, allDirectories}) {
        Client following(service, container, true);
        Client other(service, container);
        for (const auto& apps : std::vector<std::vector<std::string>>{
                 {"org.a"}, {"org.a", "org.b"}, {"org.b"}, {"org.a"}}) {
            setApps(apps);
            following.sync();
            other.sync();
            EXPECT_EQ(following.known().contains("Name of org.b"), apps.back() == "org.b");
        }
        EXPECT_EQ(following.restarts, 0);
        EXPECT_EQ(other.restarts, 3);
        log->clear();
        const auto later = following.version() + 1;
        EXPECT_TRUE(host::meansExpired(changesWithVersion(container, *following.anchor, later)));
        EXPECT_THAT(logged(platform::LogLevel::Info, "app-library version is greater"), SizeIs(1));
    }
}

TEST_F(AppLibrariesTest, LibrariesStandBeforeTheDocumentsAndNoPageSurvivesAnotherSet) {
    for (int i = 0; i < 450; ++i) (void)file("f" + std::to_string(i));
    for (int i = 0; i < 30; ++i) libraryFile("org.a/Documents/a" + std::to_string(i));
    for (const bool restarts : {false, true}) {
        for (const bool isAddedOnly : {false, true}) {
            setApps({});
            ASSERT_TRUE(service->settle());
            auto page = service->onePage(workingSet, host::Order::ByName);
            page = service->onePage(workingSet, page.next.value().value());
            const auto third = page.next.value().value();
            setApps({"org.a"});
            if (!isAddedOnly) setApps({});
            if (restarts) reopen();
            const auto refused = service->onePage(workingSet, third);
            ASSERT_FALSE(refused.next);
            EXPECT_TRUE(host::meansExpired(refused.next.error()));
            EXPECT_THAT(refused.items, IsEmpty());
        }
    }
    // Another order is another set, but over the same roots in the same order.
    setApps({"org.a", "org.b"});
    const auto before = libraries->mainCache()->versionToken();
    const auto first = service->onePage(workingSet, host::Order::ByName);
    setApps({"org.b", "org.a"});
    EXPECT_GT(libraries->mainCache()->versionToken(), before);
    EXPECT_TRUE(service->onePage(workingSet, first.next.value().value()).next);
    // The listing that begins again by itself: nothing twice, nothing left out.
    setApps({});
    std::vector<std::string> met;
    ASSERT_TRUE(service->list(workingSet, host::Order::ByName, [&](const ItemRecord& item) {
        met.push_back(item.filename);
        if (met.size() == 399) setApps({"org.a"});
        return true;
    }));
    EXPECT_THAT(met, SizeIs(450 + 30 + 1));
    EXPECT_EQ(std::set<std::string>(met.begin(), met.end()).size(), met.size());

    std::vector<ItemRecord> items = service->onePage(root, host::Order::ByDate).items;
    ASSERT_FALSE(items.empty());
    EXPECT_EQ(items[0].itemIdentifier, "#org.a");
    EXPECT_EQ(items[0].childItemCount, 30);
    EXPECT_THAT(service->onePage("#org.a", host::Order::ByName).items, SizeIs(30));
}

TEST_F(AppLibrariesTest, WhatCannotBeSavedWasToldToNobody) {
    Client following(service, workingSet, true);
    Client other(service, workingSet);
    setApps({});
    following.sync();
    other.sync();
    std::filesystem::remove(cacheFile(false));
    (void)scratch.makeFile("apps/Tidewell/searchable-app-libraries.plist/in the way");
    setApps({"org.a"});
    following.sync();  // equal, and upgraded beyond the working set
    other.sync();      // the same, by an enumerator that is gone with the answer
    EXPECT_EQ(following.restarts + other.restarts, 0);
    following.sync();  // equal, but never saved
    EXPECT_EQ(following.restarts, 1);
    EXPECT_THAT(logged(platform::LogLevel::Info, "local version was never saved"), SizeIs(1));
    other.sync();  // matches nothing
    EXPECT_EQ(other.restarts, 1);

    std::filesystem::remove_all(cacheFile(false));
    following.sync();
    EXPECT_EQ(following.restarts, 2);
    other.sync();
    setApps({"org.a", "org.b"});
    following.sync();
    EXPECT_EQ(following.restarts, 2);
    EXPECT_THAT(following.known(), IsSupersetOf({"Name of org.a", "Name of org.b"}));
}

TEST_F(AppLibrariesTest, ARestartChangesNothingAndALostCacheHidesNothing) {
    libraryFile("org.a/Documents/folder/a1");
    libraryFile("org.b/Documents/b1");
    setApps({"org.a", "org.b"});
    Client ofRoot(service, root);
    Client told(service, workingSet);
    ofRoot.sync();
    told.sync();
    reopen();
    (void)libraries->refresh();
    ofRoot.sync();
    told.sync();
    EXPECT_EQ(ofRoot.restarts + told.restarts, 0);

    // What goes while nothing says what was there.
    Client untold(service, workingSet);
    untold.readAll();
    std::filesystem::remove(cacheFile(true));
    feed({"org.b"});
    reopen();
    EXPECT_GT(libraries->mainCache()->versionToken(), told.version()) << "was never given out";
    for (auto* client : {&told, &untold, &ofRoot}) client->sync();
    EXPECT_EQ(told.restarts + untold.restarts, 0);
    EXPECT_THAT(told.known(), UnorderedElementsAre("Name of org.b", "b1"));
    setApps({"org.a", "org.b"});
    told.sync();
    EXPECT_EQ(told.restarts, 0);
    EXPECT_THAT(told.known(), IsSupersetOf({"Name of org.a", "folder", "a1"}));
}

TEST_F(AppLibrariesTest, SearchFollowsTheWorkingSetAndForgetsDomains) {
    (void)file("Letter to \"Zoë\".txt");
    libraryFile("org.a/Documents/old letter.txt");
    setApps({"org.a"});
    host::Search search(*service, scratch / "cache/deep/search.sqlite");
    const auto found = [&](std::string_view text) {
        std::vector<std::string> names;
        EXPECT_TRUE(search.find(text, [&](const ItemRecord& item) {
            names.push_back(item.filename);
            return true;
        }));
        return names;
    };
    EXPECT_THAT(found("LETT"), UnorderedElementsAre("Letter to \"Zoë\".txt", "old letter.txt"));
    EXPECT_THAT(found("zoe let"), ElementsAre("Letter to \"Zoë\".txt"));
    EXPECT_THAT(found("name org"), ElementsAre("Name of org.a"));
    for (const auto* odd : {"", "\"", "* ORX", "NEAR(", "nothing"})
        EXPECT_THAT(found(odd), IsEmpty());

    std::filesystem::rename(storage() / "Letter to \"Zoë\".txt", storage() / "note");
    EXPECT_THAT(found("lett"), ElementsAre("old letter.txt"));
    std::optional<std::uint64_t> removed;
    installed->manager().deleteSearchableItemsInDomains(
        {"org.a", "#org.a", ""}, [&](const auto& count) { removed = count.value(); });
    EXPECT_EQ(removed, 2u);
    EXPECT_THAT(found("lett"), IsEmpty());
    setApps({});
    setApps({"org.a"});
    EXPECT_THAT(found("lett"), ElementsAre("old letter.txt"));
    setApps({});
    EXPECT_THAT(found("lett"), IsEmpty());

    // A damaged replica is read anew.
    (void)scratch.makeFile("other/search.sqlite", "this is no database, whatever it is called");
    host::Search other(*service, scratch / "other/search.sqlite");
    std::size_t count = 0;
    EXPECT_TRUE(other.find("note", [&](const ItemRecord&) { return ++count > 0; }));
    EXPECT_EQ(count, 1u);
}

}  // namespace

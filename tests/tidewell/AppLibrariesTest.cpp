#include <gmock/gmock.h>

#include <latch>
#include <semaphore>
#include <thread>

#include "platform/foundation/QSKeyedArchiver.h"
#include "tests/support/FedAppLibraries.h"
#include "tests/tidewell/Observers.h"
#include "tidewell/applibraries/Registrar.h"
#include "tidewell/enumeration/LocalRootEnumerator.h"
#include "tidewell/provider/LocalFileProvider.h"

namespace tidewell {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr auto root = QSFileProviderRootContainerItemIdentifier;
constexpr auto workingSet = QSFileProviderWorkingSetContainerItemIdentifier;

class AppLibrariesTest : public tests::FedAppLibraries {
  protected:
    bool loadCache(const QSPropertyList& archive) {
        scratch.makeFile("apps/Tidewell/app-libraries.plist",
                         stringFromData(archivedDataWithRootObject(archive).value()));
        bool isLoaded = false;
        cache.queue().sync([&] { isLoaded = cache.load(); });
        return isLoaded;
    }
    BundleRef bundle(const std::string& identifier) {
        feed({identifier});
        return fed.front();
    }

    LocalAppLibraryCache cache{"test", cacheFile(true)};
};

TEST_F(AppLibrariesTest, CacheComesBackWholeOrNotAtAll) {
    ASSERT_TRUE(cache.save({bundle("org.a"), bundle("org.b")}, 70)) << "makes its folder";
    LocalAppLibraryCache again("again", cacheFile(true));
    again.queue().sync([&] { EXPECT_TRUE(again.load()); });
    EXPECT_EQ(again.versionToken(), 70u);
    ASSERT_THAT(again.content().bundleProxies, SizeIs(2));
    EXPECT_EQ(again.content().bundleProxies[1]->dataContainerURL,
              bundle("org.b")->dataContainerURL);
    again.setVersionToken(90);
    again.queue().sync([&] { EXPECT_TRUE(again.load()); });
    EXPECT_EQ(again.versionToken(), 90u) << "a load never lowers it";

    using Dictionary = QSPropertyList::Dictionary;
    const QSPropertyList::Array none;
    const Dictionary record{{"bundleIdentifier", "org.a"}};
    for (const Dictionary& broken :
         {Dictionary{}, Dictionary{{"versionToken", 5}}, Dictionary{{"bundleProxy", none}},
          Dictionary{{"versionToken", "5"}, {"bundleProxy", none}},
          Dictionary{{"versionToken", -5}, {"bundleProxy", none}},
          Dictionary{{"versionToken", 5}, {"bundleProxy", "none"}},
          Dictionary{{"versionToken", 5}, {"bundleProxy", QSPropertyList::Array{record}}},
          Dictionary{{"versionToken", 5}, {"bundleProxy", none}, {"x", QSDate{}}}}) {
        ASSERT_TRUE(cache.save({bundle("org.a")}, 70));
        EXPECT_FALSE(loadCache(broken));
        EXPECT_THAT(cache.content().bundleProxies, IsEmpty());
    }
    EXPECT_TRUE(loadCache(Dictionary{{"versionToken", 5}, {"bundleProxy", none}}));
    EXPECT_EQ(cache.versionToken(), 5u);

    scratch.makeFile("blocked");
    LocalAppLibraryCache unwritable("unwritable", scratch / "blocked/below/file");
    EXPECT_FALSE(unwritable.save({bundle("org.a")}, 7));
    EXPECT_EQ(unwritable.versionToken(), 0u);
}

TEST_F(AppLibrariesTest, SetsAreNamedOnceAndOnlyWhenTheyAreKept) {
    feed({"org.a", "org.b"});
    load();
    EXPECT_EQ(retrievals, 1) << "with no main cache";
    const auto first = libraries->mainCache()->versionToken();
    EXPECT_FALSE(libraries->refresh());
    LocalAppLibraryManager manager(libraries->mainCache());
    setApps({"org.b", "org.a"});
    EXPECT_GT(libraries->mainCache()->versionToken(), first) << "the order counts";
    setApps({"org.b"});
    const auto upgrade = manager.upgradeFromMainCache(*libraries->mainCache(), first).value();
    EXPECT_THAT(upgrade.domains(), ElementsAre("org.a"));
    EXPECT_THAT(upgrade.removedIdentifiers(), ElementsAre("#org.a"));
    EXPECT_FALSE(manager.upgradeFromMainCache(*libraries->mainCache(), first));

    // So is one whose application has its documents elsewhere.
    auto moved = *bundle("org.b");
    moved.dataContainerPath = scratch / "containers/org.moved";
    libraryFile("org.moved/Documents/note");
    fed = {std::make_shared<const QLBundleProxy>(moved)};
    EXPECT_TRUE(libraries->refresh());
    EXPECT_TRUE(installed->files().freshAttributes(
        TWPAppLibraryManager::rootURLsForAppLibraries().front().URLByAppendingPathComponent(
            "note")));

    // A set that cannot be saved is nobody's.
    std::filesystem::remove_all(scratch / "apps/Tidewell");
    scratch.makeFile("apps/Tidewell");
    setApps({"org.c"});
    EXPECT_THAT(logged(LogLevel::Error, "can't refresh app libraries;"), SizeIs(1));
    EXPECT_EQ(libraries->mainCache()->content().bundleProxies.size(), 1u);
    ASSERT_THAT(TWPAppLibraryManager::rootURLsForAppLibraries(), SizeIs(1));
    EXPECT_TRUE(installed->files().freshAttributes(
        TWPAppLibraryManager::rootURLsForAppLibraries().front()));
}

TEST_F(AppLibrariesTest, WhatTheRegistryOffersIsTakenInOrderOnceForEachContainer) {
    const auto install = [&](const char* identifier, std::string_view lines) {
        (void)installApplication(identifier, identifier, lines);
    };
    install("org.both", "X-Quenby-SupportsOpenInPlace=true\nX-Quenby-FileSharingEnabled=true\n");
    install("org.half", "X-Quenby-SupportsOpenInPlace=true\n");
    install("org.browser", "X-Quenby-SupportsDocumentBrowser=true\n");
    install("org.stuck", "X-Quenby-SupportsDocumentBrowser=true\n");
    std::filesystem::remove_all(scratch / "containers");
    scratch.makeFile("containers/org.stuck/Documents");
    installed->workspace().refresh();
    std::vector<std::string> kept;
    for (const auto& one : retrieveAppLibraries()) kept.push_back(*one->bundleIdentifier);
    EXPECT_THAT(kept, ElementsAre("org.both", "org.browser"));
    EXPECT_TRUE(std::filesystem::is_directory(scratch / "containers/org.both/Documents"));
    EXPECT_FALSE(std::filesystem::exists(scratch / "containers/org.half"));
}

/// A provider over the real registry, whose refreshes can be held and whose signals waited for.
class RefreshTest : public AppLibrariesTest {
  protected:
    RefreshTest() {
        adjustRegistry = [](QLApplicationWorkspace::Configuration& configuration) {
            configuration.rest = std::chrono::milliseconds(10);
        };
        restart();
    }
    /// The refresh at the start is held behind the registry.
    void open() {
        installed->manager().setSignalHandler([this](const std::string& container, auto done) {
            {
                const std::scoped_lock lock(mutex);
                signals.push_back(container);
            }
            done(std::nullopt);
            signalled.release();
        });
        libraries = AppLibraries::load([this] {
            auto bundles = retrieveAppLibraries();
            if (++retrievals == 2) {
                isHeld.count_down();
                mayGoOn.wait();
            }
            return bundles;
        });
        provider = LocalFileProvider::init(libraries);
        isHeld.wait();
    }
    void TearDown() override {
        provider.reset();
        libraries.reset();
        mainQueue().sync([] {});
        installed->manager().setSignalHandler({});
    }
    void install(const std::string& identifier) const {
        (void)installApplication(identifier, "App", "X-Quenby-SupportsDocumentBrowser=true\n");
        installed->workspace().refresh();
    }
    void awaitSignals(int count) {
        while (count-- > 0) EXPECT_TRUE(signalled.try_acquire_for(std::chrono::seconds(20)));
    }

    std::latch isHeld{1};
    std::latch mayGoOn{1};
    std::shared_ptr<LocalFileProvider> provider;
    std::vector<std::string> signals;  // guarded by mutex
    std::counting_semaphore<> signalled{0};
};

TEST_F(RefreshTest, TenNotificationsAreOneRefreshAndOnlyWhatChangedIsSignalled) {
    open();
    for (int i = 0; i < 10; ++i) install("org." + std::to_string(i));
    mayGoOn.count_down();
    awaitSignals(4);
    EXPECT_EQ(retrievals, 3);
    EXPECT_THAT(TWPAppLibraryManager::rootURLsForAppLibraries(), SizeIs(10));
    installed->notifications()->post(applicationRegisteredNotification);  // of nothing
    while (retrievals < 4) std::this_thread::yield();
    std::filesystem::remove(scratch / "share/applications/org.0.desktop");
    awaitSignals(2);
    EXPECT_THAT(signals, ElementsAre(workingSet,        // at the start
                                     workingSet,        // which was never told of a set
                                     root, workingSet,  // what came
                                     root, workingSet));
}

TEST_F(RefreshTest, ASlowRegistryHoldsUpNobodyAndObserversMayAsk) {
    install("org.a");
    open();
    const auto enumerator = provider->enumeratorForContainerItemIdentifier(std::string(root));
    std::optional<QSFileProviderSyncAnchor> anchor;
    (*enumerator)->currentSyncAnchorWithCompletionHandler([&](auto now) { anchor = now; });
    const auto observer = std::make_shared<tests::ChangeCollector>();
    int found = 0;
    observer->whenUpdated = [&](const std::string& identifier) {
        if (provider->itemForIdentifier(identifier)) ++found;
    };
    (*enumerator)->enumerateChangesForObserver(observer, anchor.value());
    EXPECT_EQ(observer->end.get_future().wait_for(std::chrono::seconds(20)),
              std::future_status::ready);
    EXPECT_EQ(found, 1);

    const auto container = [&](const std::string& identifier) {
        std::optional<Result<ItemRef>> answer;
        provider->_defaultApplicationContainerForBundleIdentifier(
            identifier, [&](Result<ItemRef> given) { answer = std::move(given); });
        return answer.value();
    };
    EXPECT_EQ(container("org.a").value()->itemIdentifier(), "#org.a");
    EXPECT_EQ(container("org.none").error(),
              QPInvalidParameterError("bundleIdentifier", "org.none"));
    EXPECT_THAT(logged(LogLevel::Error, "can't create bundle proxy with 'org.none'"), SizeIs(1));
    mayGoOn.count_down();
    (void)libraries->refresh();  // runs behind it
    (*enumerator)->invalidate();
}

}  // namespace
}  // namespace tidewell

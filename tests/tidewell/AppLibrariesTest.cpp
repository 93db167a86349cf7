#include <gmock/gmock.h>

#include <condition_variable>
#include <latch>

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

    // A set that cannot be saved is nobody's, and what left for it comes back.
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
    scratch.makeFile("containers/org.stuck/Documents");
    installed->workspace().refresh();
    std::vector<std::string> kept;
    for (const auto& one : retrieveAppLibraries()) kept.push_back(*one->bundleIdentifier);
    EXPECT_THAT(kept, ElementsAre("org.both", "org.browser"));
    EXPECT_TRUE(std::filesystem::is_directory(scratch / "containers/org.both/Documents"));
    EXPECT_FALSE(std::filesystem::exists(scratch / "containers/org.half"));
}

/// A provider whose signals and refreshes can be waited for.
class RefreshTest : public AppLibrariesTest {
  protected:
    void open() {
        installed->manager().setSignalHandler([this](const std::string& container, auto done) {
            const std::scoped_lock lock(signalMutex);
            signals.push_back(container);
            done(std::nullopt);
            signalled.notify_all();
        });
        load();
        provider = LocalFileProvider::init(libraries);
    }
    void TearDown() override {
        provider.reset();
        libraries.reset();
        mainQueue().sync([] {});
        installed->manager().setSignalHandler({});
    }
    void post(int times = 1) const {
        while (times-- > 0) {
            installed->notifications()->post("com.quenby.Registrar.applicationRegistered");
        }
    }
    void awaitSignals(std::size_t count) {
        std::unique_lock lock(signalMutex);
        EXPECT_TRUE(signalled.wait_for(lock, std::chrono::seconds(20),
                                       [&] { return signals.size() >= count; }));
    }
    void awaitRetrievals(int count) const {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (retrievals < count && std::chrono::steady_clock::now() < end) {
            std::this_thread::yield();
        }
    }

    std::shared_ptr<LocalFileProvider> provider;
    std::mutex signalMutex;
    std::condition_variable signalled;
    std::vector<std::string> signals;  // guarded by signalMutex
};

TEST_F(RefreshTest, TenNotificationsAreOneRefreshAndOnlyWhatChangedIsSignalled) {
    feed({"org.a"});
    open();
    awaitSignals(2);  // the working set at the start, and what it was never told
    awaitRetrievals(2);
    feed({"org.a", "org.b"});
    post(10);
    awaitSignals(4);
    EXPECT_EQ(retrievals, 3);
    post();
    awaitRetrievals(4);
    provider.reset();
    EXPECT_EQ(retrievals, 4);
    EXPECT_THAT(signals, ElementsAre(workingSet, workingSet, root, workingSet));
}

TEST_F(RefreshTest, DefaultContainersAreItemsOrAnInvalidParameter) {
    (void)installApplication("org.a", "App", "X-Quenby-SupportsDocumentBrowser=true\n");
    installed->workspace().refresh();
    provider = LocalFileProvider::init();
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
}

TEST_F(RefreshTest, ASlowRegistryHoldsUpNobodyAndObserversMayAsk) {
    (void)installApplication("org.a", "App", "X-Quenby-SupportsDocumentBrowser=true\n");
    installed->workspace().refresh();
    std::latch isInside(1);
    std::latch mayEnd(1);
    std::atomic<bool> isSlow = false;
    libraries = AppLibraries::load([&] {
        if (isSlow.exchange(false)) {
            isInside.count_down();
            mayEnd.wait();
        }
        return retrieveAppLibraries();
    });
    isSlow = true;
    provider = LocalFileProvider::init(libraries);  // which refreshes once
    isInside.wait();
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
    mayEnd.count_down();
    (void)libraries->refresh();  // runs behind it
    (*enumerator)->invalidate();
}

}  // namespace
}  // namespace tidewell

#include <gmock/gmock.h>

#include <atomic>
#include <mutex>
#include <semaphore>

#include "platform/foundation/QSKeyedArchiver.h"
#include "tests/support/Await.h"
#include "tests/support/InstalledPlatform.h"
#include "tests/tidewell/Observers.h"
#include "tidewell/applibraries/Registrar.h"
#include "tidewell/provider/LocalFileProvider.h"

namespace tidewell {
namespace {

using testing::ElementsAre;
using testing::SizeIs;
using tests::await;

constexpr auto root = QSFileProviderRootContainerItemIdentifier;
constexpr auto workingSet = QSFileProviderWorkingSetContainerItemIdentifier;

TEST(AppLibraryCacheTest, ComesBackWholeOrNotAtAll) {
    const tests::ScratchFolder scratch;
    const auto bundleOf = [](const std::string& identifier) {
        const auto container = QSURL::fileURLWithPath("/containers/" + identifier);
        return std::make_shared<const QLBundleProxy>(QLBundleProxy{identifier, container, {}});
    };
    LocalAppLibraryCache cache("test", scratch / "new/app-libraries.plist");
    const auto load = [&] {
        bool isLoaded = false;
        cache.queue().sync([&] { isLoaded = cache.load(); });
        return isLoaded;
    };
    ASSERT_TRUE(cache.save({bundleOf("org.a"), bundleOf("org.b")}, 70)) << "makes its folder";
    cache.reset();
    EXPECT_TRUE(load());
    EXPECT_EQ(cache.versionToken(), 70u);
    ASSERT_THAT(cache.content().bundleProxies, SizeIs(2));
    EXPECT_EQ(cache.content().bundleProxies[1]->dataContainerURL->path(), "/containers/org.b");
    cache.setVersionToken(90);
    EXPECT_TRUE(load());
    EXPECT_EQ(cache.versionToken(), 90u) << "a load never lowers it";

    using Dictionary = QSPropertyList::Dictionary;
    const QSPropertyList::Array none;
    const Dictionary record{{"bundleIdentifier", "org.a"}};
    for (const auto& [archive, isWhole] : std::vector<std::pair<Dictionary, bool>>{
             {{}, false},
             {{{"versionToken", 5}}, false},
             {{{"bundleProxy", none}}, false},
             {{{"versionToken", "5"}, {"bundleProxy", none}}, false},
             {{{"versionToken", -5}, {"bundleProxy", none}}, false},
             {{{"versionToken", 5}, {"bundleProxy", "none"}}, false},
             {{{"versionToken", 5}, {"bundleProxy", QSPropertyList::Array{record}}}, false},
             {{{"versionToken", 5}, {"bundleProxy", none}, {"x", QSDate{}}}, false},
             {{{"versionToken", 95}, {"bundleProxy", none}}, true}}) {
        ASSERT_TRUE(cache.save({bundleOf("org.a")}, 70));
        scratch.makeFile("new/app-libraries.plist",
                         stringFromData(archivedDataWithRootObject(archive).value()));
        EXPECT_EQ(load(), isWhole);
        EXPECT_THAT(cache.content().bundleProxies, testing::IsEmpty());
    }
    EXPECT_EQ(cache.versionToken(), 95u);
}

/// A provider over the real registry. The refresh at the start waits behind the registry until it
/// is let on.
class RefreshTest : public tests::InstalledPlatform {
  protected:
    RefreshTest() {
        adjustRegistry = [](QLApplicationWorkspace::Configuration& configuration) {
            configuration.rest = std::chrono::milliseconds(10);
        };
        restart();
        install("org.0");
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
            if (++retrievals == 2) mayGoOn.wait(false);
            return bundles;
        });
        provider = LocalFileProvider::init(libraries);
        EXPECT_TRUE(await("the first refresh", [this] { return retrievals == 2; }));
    }
    void TearDown() override {
        goOn();
        provider.reset();
        libraries.reset();
        mainQueue().sync([] {});
        installed->notifications()->post(applicationUnregisteredNotification);  // to nobody
        installed->manager().setSignalHandler({});
    }
    void install(const std::string& identifier, std::string_view lines = browser) const {
        (void)installApplication(identifier, "App", lines);
        installed->workspace().refresh();
    }
    void goOn() {
        mayGoOn = true;
        mayGoOn.notify_all();
    }
    void awaitSignals(int count) {
        while (count-- > 0) ASSERT_TRUE(await("a signal", signalled));
    }

    static constexpr std::string_view browser = "X-Quenby-SupportsDocumentBrowser=true\n";
    static constexpr std::string_view inPlace = "X-Quenby-SupportsOpenInPlace=true\n";
    static constexpr std::string_view sharing = "X-Quenby-FileSharingEnabled=true\n";
    std::atomic<bool> mayGoOn = false;
    std::atomic<int> retrievals = 0;
    std::shared_ptr<AppLibraries> libraries;
    std::shared_ptr<LocalFileProvider> provider;
    std::mutex mutex;
    std::vector<std::string> signals;  // guarded by mutex
    std::counting_semaphore<> signalled{0};
};

TEST_F(RefreshTest, ASlowRegistryHoldsUpNobody) {
    const auto enumerator = provider->enumeratorForContainerItemIdentifier(std::string(root));
    std::optional<QSFileProviderSyncAnchor> anchor;
    (*enumerator)->currentSyncAnchorWithCompletionHandler([&](auto now) { anchor = now; });
    const auto observer = std::make_shared<tests::ChangeCollector>();
    int found = 0;
    observer->whenUpdated = [&](const std::string& identifier) {
        if (provider->itemForIdentifier(identifier)) ++found;
    };
    (*enumerator)->enumerateChangesForObserver(observer, anchor.value());
    EXPECT_TRUE(await("the changes", observer->end.get_future()));
    EXPECT_EQ(found, 1);
    (*enumerator)->invalidate();
    const auto container = [&](const std::string& identifier) {
        std::optional<Result<ItemRef>> answer;
        provider->_defaultApplicationContainerForBundleIdentifier(
            identifier, [&](Result<ItemRef> given) { answer = std::move(given); });
        return answer.value();
    };
    EXPECT_EQ(container("org.0").value()->itemIdentifier(), "#org.0");
    EXPECT_EQ(container("org.none").error(),
              QPInvalidParameterError("bundleIdentifier", "org.none"));
    EXPECT_THAT(logged(LogLevel::Error, "can't create bundle proxy with 'org.none'"), SizeIs(1));
}

TEST_F(RefreshTest, TenNotificationsAreOneRefreshOfWhatQualifies) {
    for (int i = 1; i < 7; ++i) install("org." + std::to_string(i));
    install("org.both", std::string(inPlace) + std::string(sharing));
    install("org.open", inPlace);
    install("org.shared", sharing);
    install("org.stuck");
    std::filesystem::remove_all(scratch / "containers");
    scratch.makeFile("containers/org.stuck/Documents");
    goOn();
    awaitSignals(4);
    EXPECT_EQ(retrievals, 3);
    std::vector<std::string> shown;
    for (const auto& bundle : libraries->mainCache()->content().bundleProxies) {
        shown.push_back(*bundle->bundleIdentifier);
        EXPECT_TRUE(std::filesystem::is_directory(bundle->dataContainerPath + "/Documents"));
    }
    EXPECT_THAT(shown, ElementsAre("org.0", "org.1", "org.2", "org.3", "org.4", "org.5", "org.6",
                                   "org.both"));
    EXPECT_FALSE(std::filesystem::exists(scratch / "containers/org.open"));
    installed->notifications()->post(applicationRegisteredNotification);  // of nothing
    ASSERT_TRUE(await("a refresh that finds nothing", [&] { return retrievals == 4; }));
    std::filesystem::remove(scratch / "share/applications/org.0.desktop");
    awaitSignals(2);
    EXPECT_THAT(signals, ElementsAre(workingSet,        // at the start
                                     workingSet,        // which had no set yet
                                     root, workingSet,  // what came
                                     root, workingSet));
}

}  // namespace
}  // namespace tidewell

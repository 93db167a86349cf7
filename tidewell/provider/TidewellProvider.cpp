// The provider's core: its life, identifiers and items. Other operations have files of their own.
#include <array>

#include "platform/dispatch/Queue.h"
#include "platform/fileprovider/Platform.h"
#include "platform/fileprovider/QSFileProviderError.h"
#include "platform/fileprovider/URLOperations.h"
#include "platform/files/LookFailure.h"
#include "platform/tree/TreeLayout.h"
#include "tidewell/common/LocalFileProviderError.h"
#include "tidewell/common/Logging.h"
#include "tidewell/identity/QSURL+TWPFileObjectIdentifier.h"
#include "tidewell/identity/TWPFileObjectIdentifier.h"
#include "tidewell/items/LocalAppLibraryItem.h"
#include "tidewell/items/LocalItem.h"
#include "tidewell/provider/InstalledApps.h"
#include "tidewell/provider/LocalFileProvider.h"
#include "tidewell/provider/TrashRecords.h"

namespace tidewell {

namespace {

using namespace std::chrono_literals;

constexpr std::array<std::string_view, 2> registryNotifications = {
    "com.quenby.Registrar.applicationRegistered", "com.quenby.Registrar.applicationUnregistered"};

std::shared_ptr<LocalItem> appLibraryItem(std::string_view bundleIdentifier) {
    const auto bundle =
        QLApplicationWorkspace::defaultWorkspace().bundleProxyForIdentifier(bundleIdentifier);
    return bundle ? LocalAppLibraryItem::initFrom(*bundle) : nullptr;
}

std::shared_ptr<LocalItem> temporaryFolderItem() {
    const auto url =
        QSFileProviderManager::defaultManager().documentStorageURL().URLByAppendingPathComponent(
            temporaryFolderName);
    if (const auto made = Platform::current().files().makeFolder(url); !made) {
        logError([&] { return "can't create temporary directory; " + made.error().description(); });
        return nullptr;
    }
    return LocalItem::initWithURL(url);
}

/// Whether the item found has the identifier asked for, as identifiers are read.
bool bears(const LocalItem& item, std::string_view identifier) {
    const auto found = item.itemIdentifier();
    if (found == identifier) return true;
    const auto asked = ObjectNumber::parse(identifier);
    return asked && asked == ObjectNumber::parse(found);
}

}  // namespace

Result<std::shared_ptr<LocalItem>> itemMeantBy(const std::string& identifier) {
    if (isAppLibraryIdentifier(identifier)) {
        return appLibraryItem(std::string_view(identifier).substr(1));
    }
    if (identifier == QSFileProviderTemporaryLocalFolderItemIdentifier) {
        return temporaryFolderItem();
    }
    constexpr int mostLooks = 8;
    std::optional<QSURL> former;
    for (int look = 0; look < mostLooks; ++look) {
        const auto url = findFileURLWithItemIdentifier(identifier);
        if (!url) return std::unexpected(url.error());
        if (!*url) return nullptr;
        auto item = LocalItem::findAtURL(**url);
        if (!item || (*item && bears(**item, identifier))) return item;
        // It has moved since, or is no item where it stays.
        const bool stays = former == *url && Platform::current().files().attributes(**url);
        former = *url;
        if (!stays) continue;
        if (*item) {
            logError([&] {
                return "found " + (*item)->description() + " where " + quoted(identifier) +
                       " was asked for";
            });
        }
        return nullptr;
    }
    return std::unexpected(movesAllTheTimeError());
}

LocalFileProvider::LocalFileProvider(std::shared_ptr<AppLibraries> appLibraries)
    : appLibraries_(std::move(appLibraries)),
      appRefreshQueue_("tidewell.app-refresh.queue"),
      installedAppsProxy_(std::make_shared<InstalledAppsProxy>()),
      appRefreshPacer_(
          std::make_shared<QPPacer>("tidewell.app-refresh.pacer", appRefreshQueue_, 500ms)) {}

std::shared_ptr<LocalFileProvider> LocalFileProvider::init(
    std::shared_ptr<AppLibraries> appLibraries) {
    std::shared_ptr<LocalFileProvider> self(new LocalFileProvider(std::move(appLibraries)));
    self->appRefreshPacer_->setEventBlock(
        [libraries = self->appLibraries_] { refreshInstalledApps(*libraries); });
    self->appRefreshPacer_->resume();
    self->appRefreshPacer_->signal();
    self->observeRegistry(self);
    if (auto interrupted = Platform::current().volume().trash().popInterrupted();
        !interrupted.empty()) {
        dispatchConcurrently(
            [pass = Platform::current().events().gate->enter(),
             interrupted = std::move(interrupted)] { finishTrashing(interrupted); });
    }
    logInfo("auto notify changes on QSFileProviderWorkingSetContainerItemIdentifier at startup");
    QSFileProviderManager::defaultManager().signalEnumeratorForContainerItemIdentifier(
        std::string(QSFileProviderWorkingSetContainerItemIdentifier),
        [](const std::optional<QSError>&) {});
    return self;
}

void LocalFileProvider::observeRegistry(const std::shared_ptr<LocalFileProvider>& self) {
    installedAppsProxy_->provider = self;
    const auto center = Platform::current().notifications();
    for (const auto name : registryNotifications) {
        center->addObserver(installedAppsProxy_.get(), std::string(name), [](const void* observer) {
            if (!observer) return;
            const auto provider = static_cast<const InstalledAppsProxy*>(observer)->provider.lock();
            if (provider) provider->appRefreshPacer_->signal();
        });
    }
}

LocalFileProvider::~LocalFileProvider() {
    mainQueue().async([proxy = installedAppsProxy_, center = Platform::current().notifications()] {
        center->removeEveryObserver(proxy.get());
    });
    // A refresh that runs now uses the platform, which may go as soon as the provider has.
    appRefreshPacer_.reset();
    appRefreshQueue_.sync([] {});
}

Result<QSURL> LocalFileProvider::throwingURLForItem(
    const QSFileProviderItemIdentifier& identifier) {
    const auto item = itemMeantBy(identifier);
    if (!item) return std::unexpected(item.error());
    const auto url = *item ? (*item)->fileURL() : std::nullopt;
    if (!url) {
        return std::unexpected(fileProviderErrorForNonExistentItemWithIdentifier(identifier));
    }
    logDebug([&] { return "found " + url->description(); });
    return *url;
}

std::optional<QSURL> LocalFileProvider::_urlForItemWithPersistentIdentifier(
    const QSFileProviderItemIdentifier& identifier) {
    const LogSection section([&] { return "fetching URL for " + quoted(identifier); });
    const auto url = throwingURLForItem(identifier);
    if (url) return *url;
    constexpr std::int64_t expectedMiss = 2;
    const auto message = [&] {
        return "can't find URL matching identifier " + identifier + "; " +
               url.error().description();
    };
    if (url.error().code == expectedMiss) {
        logDebug(message);
    } else {
        logError(message);
    }
    return std::nullopt;
}

std::optional<QSFileProviderItemIdentifier> LocalFileProvider::_persistentIdentifierForItemAt(
    const QSURL& url, ItemRef* built) {
    const LogSection section(
        [&] { return "fetching item identifier for " + quoted(url.description()); });
    std::optional<std::string> identifier;
    if (url.lastPathComponent() == documentsName) {
        identifier = TWPFileObjectIdentifier::fromAppLibraryDataContainerURL(url);
    }
    if (!identifier) {
        const auto item = LocalItem::initWithURL(url);
        if (!item) return std::nullopt;
        identifier = item->itemIdentifier();
        if (built) *built = item;
    }
    logDebug([&] { return "found " + *identifier; });
    return identifier;
}

std::optional<QSURL> LocalFileProvider::URLForItemWithPersistentIdentifier(
    const QSFileProviderItemIdentifier& identifier) {
    return _urlForItemWithPersistentIdentifier(identifier);
}

std::optional<QSFileProviderItemIdentifier> LocalFileProvider::persistentIdentifierForItemAtURL(
    const QSURL& url) {
    return _persistentIdentifierForItemAt(url);
}

Result<ItemRef> LocalFileProvider::itemForIdentifier(
    const QSFileProviderItemIdentifier& identifier) {
    const LogSection section(
        [&] { return "fetching item's properties for " + quoted(identifier); });
    auto item = itemMeantBy(identifier);
    if (!item || !*item) {
        logError([&] { return "item lookup failed for identifier " + quoted(identifier); });
        if (!item) return std::unexpected(std::move(item.error()));
        return std::unexpected(makeError(LocalFileProviderError::itemLookupFailed));
    }
    logDebug([&] { return "found " + (*item)->description(); });
    return *std::move(item);
}

void LocalFileProvider::providePlaceholderAtURL(const QSURL& /*url*/,
                                                CompletionHandler completionHandler) {
    completionHandler(std::nullopt);
}

void LocalFileProvider::startProvidingItemAtURL(const QSURL& url,
                                                CompletionHandler completionHandler) {
    providePlaceholderAtURL(url, std::move(completionHandler));
}

void LocalFileProvider::stopProvidingItemAtURL(const QSURL& /*url*/) {}

void LocalFileProvider::itemChangedAtURL(const QSURL& /*url*/) {}

std::shared_ptr<QSFileProviderExtension> makeLocalFileProvider(
    std::shared_ptr<AppLibraries> appLibraries) {
    return LocalFileProvider::init(std::move(appLibraries));
}

}  // namespace tidewell

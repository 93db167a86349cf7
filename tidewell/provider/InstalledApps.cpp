#include "tidewell/provider/InstalledApps.h"

#include "platform/fileprovider/Platform.h"
#include "platform/fileprovider/QSFileProviderError.h"
#include "tidewell/applibraries/LocalAppLibraryManager.h"
#include "tidewell/common/Logging.h"
#include "tidewell/items/LocalAppLibraryItem.h"
#include "tidewell/provider/LocalFileProvider.h"

namespace tidewell {

namespace {

void signal(std::string_view container, std::string_view name) {
    logInfo([&] { return "notify changes on " + std::string(name); });
    QSFileProviderManager::defaultManager().signalEnumeratorForContainerItemIdentifier(
        std::string(container), [](const std::optional<QSError>&) {});
}

void removeFromSearchIndex(const std::vector<std::string>& domains) {
    if (domains.empty()) return;
    logInfo("asking provider manager to delete index from deleted domains");
    QSFileProviderManager::defaultManager().deleteSearchableItemsInDomains(
        domains, [](const Result<std::uint64_t>& removed) {
            if (removed) {
                logInfo([&] {
                    return "items from domains: " + std::to_string(*removed) +
                           " removed from index";
                });
            } else {
                logError([&] {
                    return "can't delete searchable items from domains; " +
                           removed.error().description();
                });
            }
        });
}

}  // namespace

void refreshInstalledApps(AppLibraries& appLibraries) {
    const LogSection section("pacer event");
    // A set that could not be saved may be another one.
    const bool rootChanged = appLibraries.refresh().value_or(true);
    logDebug("auto-upgrading shared app library manager");
    const auto upgrade = appLibraries.upgradeShared();
    if (rootChanged) {
        signal(QSFileProviderRootContainerItemIdentifier,
               "QSFileProviderRootContainerItemIdentifier");
    }
    if (upgrade.changed) {
        signal(QSFileProviderWorkingSetContainerItemIdentifier,
               "QSFileProviderWorkingSetContainerItemIdentifier");
    }
    removeFromSearchIndex(upgrade.domains());
    if (upgrade.changed) logInfo("upgraded manager");
}

void LocalFileProvider::_defaultApplicationContainerForBundleIdentifier(
    const std::string& bundleIdentifier,
    const std::function<void(Result<ItemRef>)>& completionHandler) {
    const LogSection section([&] { return "default location for " + bundleIdentifier; });
    const auto refuse = [&] {
        completionHandler(
            std::unexpected(QPInvalidParameterError("bundleIdentifier", bundleIdentifier)));
    };
    const auto bundle =
        QLApplicationWorkspace::defaultWorkspace().bundleProxyForIdentifier(bundleIdentifier);
    if (!bundle) {
        logError([&] { return "can't create bundle proxy with '" + bundleIdentifier + "'"; });
        return refuse();
    }
    auto item = LocalAppLibraryItem::initFrom(*bundle);
    if (!item) {
        logError([&] { return "can't create an app library item with " + descriptionOf(*bundle); });
        return refuse();
    }
    completionHandler(std::move(item));
}

}  // namespace tidewell

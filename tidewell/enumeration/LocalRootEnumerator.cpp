#include "tidewell/enumeration/LocalRootEnumerator.h"

#include "platform/fileprovider/QSFileProviderManager.h"
#include "tidewell/applibraries/TWPAppLibraryManager.h"
#include "tidewell/common/Logging.h"
#include "tidewell/items/LocalAppLibraryItem.h"

namespace tidewell {

namespace {

/// The storage first, then the library roots sorted by path.
std::vector<QSURL> treeRoots() {
    std::vector<QSURL> urls{QSFileProviderManager::defaultManager().documentStorageURL()};
    const auto libraries = TWPAppLibraryManager::rootURLsForAppLibraries();
    urls.insert(urls.end(), libraries.begin(), libraries.end());
    return urls;
}

std::vector<ItemRef> appLibraryItems() {
    std::vector<ItemRef> items;
    for (const auto& [root, bundle] : *AppLibraryRootTable::shared().bundleProxiesByRootURLs()) {
        if (auto item = LocalAppLibraryItem::initFrom(*bundle)) items.push_back(std::move(item));
    }
    return items;
}

}  // namespace

LocalRootEnumerator::LocalRootEnumerator(std::string container)
    : container_(std::move(container)),
      localFileEnumerator_(std::make_shared<LocalFileEnumerator>(container_, treeRoots())) {}

void LocalRootEnumerator::enumerateItemsForObserver(
    std::shared_ptr<QSFileProviderEnumerationObserver> observer,
    const QSFileProviderPage& startingAtPage) {
    const LogSection section([&] { return "enumerate root items for " + container_; });
    if (isInitialPage(startingAtPage)) {
        auto items = appLibraryItems();
        logDebug([&] { return "discovered " + std::to_string(items.size()) + " app-libraries"; });
        observer->didEnumerateItems(std::move(items));
    }
    localFileEnumerator_->enumerateItemsForObserver(std::move(observer), startingAtPage);
}

}  // namespace tidewell

#include "tidewell/enumeration/LocalChangesObserverContext.h"

#include "platform/fileprovider/QGStorageManager.h"
#include "tidewell/common/Logging.h"
#include "tidewell/enumeration/LocalFileEnumerator.h"

namespace tidewell {

namespace {

std::string textOf(const QSFileProviderItem& item) {
    const auto* local = dynamic_cast<const LocalItem*>(&item);
    return local ? local->description() : item.itemIdentifier();
}

}  // namespace

LocalChangesObserverContext::LocalChangesObserverContext(
    std::shared_ptr<QSFileProviderChangeObserver> observer,
    std::shared_ptr<LocalFileEnumerator> localFileEnumerator, bool shouldUpdateFileIDInStrata)
    : observer_(std::move(observer)),
      localFileEnumerator_(std::move(localFileEnumerator)),
      shouldUpdateFileIDInStrata_(shouldUpdateFileIDInStrata) {}

void LocalChangesObserverContext::setFSChangesEnumerator(
    std::weak_ptr<FSChangesEnumerator> enumerator) {
    fsChangesEnumerator_ = std::move(enumerator);
}

void LocalChangesObserverContext::didUpdateItems(std::vector<ItemRef> items) {
    if (shouldUpdateFileIDInStrata_) {
        for (const auto& item : items) {
            logDebug([&] { return "updating fileID in strata for " + textOf(*item); });
            const auto url = item->fileURL();
            if (!url) continue;
            // For the sake of looking: that refreshes the record.
            (void)QGStorageManager::defaultManager().permanentStorageForItemAtURL(*url, false);
        }
    }
    observer_->didUpdateItems(std::move(items));
}

void LocalChangesObserverContext::didDeleteItemsWithIdentifiers(
    std::vector<QSFileProviderItemIdentifier> identifiers) {
    observer_->didDeleteItemsWithIdentifiers(std::move(identifiers));
}

void LocalChangesObserverContext::finishEnumeratingChangesUpToSyncAnchor(
    QSFileProviderSyncAnchor anchor, bool moreComing) {
    const auto enumerator = fsChangesEnumerator_.lock();
    if (!enumerator) return;
    observer_->finishEnumeratingChangesUpToSyncAnchor(std::move(anchor), moreComing);
    localFileEnumerator_->removeEnumerator(enumerator);
}

void LocalChangesObserverContext::finishEnumeratingWithError(QSError error) {
    if (fsChangesEnumerator_.expired()) return;
    observer_->finishEnumeratingWithError(std::move(error));
    fsChangesEnumerator_.reset();
}

}  // namespace tidewell

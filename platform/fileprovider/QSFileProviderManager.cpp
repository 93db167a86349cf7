#include "platform/fileprovider/QSFileProviderManager.h"

#include "platform/fileprovider/Platform.h"

namespace platform {

QSFileProviderManager::QSFileProviderManager(const QSURL& documentStorageURL)
    : documentStoragePath_(documentStorageURL.path()) {}

QSURL QSFileProviderManager::documentStorageURL() const {
    return QSURL::fileURLWithPath(documentStoragePath_);
}

QSFileProviderManager& QSFileProviderManager::defaultManager() {
    return Platform::current().manager();
}

void QSFileProviderManager::signalEnumeratorForContainerItemIdentifier(
    const QSFileProviderItemIdentifier& identifier, CompletionHandler completionHandler) {
    SignalHandler handler;
    {
        const std::scoped_lock lock(mutex_);
        handler = handler_;
    }
    if (handler) {
        handler(identifier, std::move(completionHandler));
    } else {
        completionHandler(std::nullopt);
    }
}

void QSFileProviderManager::setSignalHandler(SignalHandler handler) {
    const std::scoped_lock lock(mutex_);
    handler_ = std::move(handler);
}

void QSFileProviderManager::deleteSearchableItemsInDomains(const std::vector<std::string>& domains,
                                                           DeletionHandler completionHandler) {
    SearchableItems handler;
    {
        const std::scoped_lock lock(mutex_);
        handler = searchableItems_;
    }
    if (handler) {
        handler(domains, std::move(completionHandler));
    } else {
        completionHandler(0);
    }
}

void QSFileProviderManager::setSearchableItems(SearchableItems handler) {
    const std::scoped_lock lock(mutex_);
    searchableItems_ = std::move(handler);
}

}  // namespace platform

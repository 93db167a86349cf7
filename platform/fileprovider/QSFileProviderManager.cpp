#include "platform/fileprovider/QSFileProviderManager.h"

#include "platform/fileprovider/Platform.h"

namespace platform {

QSFileProviderManager::QSFileProviderManager(QSURL documentStorageURL)
    : documentStorageURL_(std::move(documentStorageURL)) {}

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

}  // namespace platform

#include "platform/fileprovider/QSFileProviderError.h"

namespace platform {

QSError fileProviderErrorForNonExistentItemWithIdentifier(std::string_view identifier) {
    return {
        std::string(QSFileProviderErrorDomain),
        QSFileProviderErrorNoSuchItem,
        {{std::string(QSDescriptionErrorKey),
          "there is no item with the identifier " + std::string(identifier)},
         {std::string(QSFileProviderErrorNonExistentItemIdentifierKey), std::string(identifier)}}};
}

QSError fileProviderErrorForCollisionWithItem(const QSFileProviderItem& item) {
    return {std::string(QSFileProviderErrorDomain),
            QSFileProviderErrorFilenameCollision,
            {{std::string(QSDescriptionErrorKey), "the name is taken by " + item.itemIdentifier()},
             {std::string(QSFileProviderErrorCollidingItemIdentifierKey), item.itemIdentifier()}}};
}

QSError QPItemNotFoundError(std::string_view identifier) {
    return {std::string(QPErrorDomain),
            QPItemNotFoundErrorCode,
            {{std::string(QSDescriptionErrorKey),
              "there is no item with the identifier " + std::string(identifier)},
             {std::string(QPItemIdentifierErrorKey), std::string(identifier)}}};
}

QSError QPInvalidParameterError(std::string_view name, std::string_view value) {
    return {std::string(QPErrorDomain),
            QPInvalidParameterErrorCode,
            {{std::string(QSDescriptionErrorKey),
              std::string(name) + " cannot be " + std::string(value)},
             {std::string(QPParameterNameErrorKey), std::string(name)},
             {std::string(QPParameterValueErrorKey), std::string(value)}}};
}

QSError syncAnchorExpiredError() {
    return {std::string(QSFileProviderErrorDomain),
            QSFileProviderErrorSyncAnchorExpired,
            {{std::string(QSDescriptionErrorKey),
              "the page or anchor has expired; start again from the beginning"}}};
}

}  // namespace platform

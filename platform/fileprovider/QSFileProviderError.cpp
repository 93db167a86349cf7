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

QSError syncAnchorExpiredError() {
    return {std::string(QSFileProviderErrorDomain),
            QSFileProviderErrorSyncAnchorExpired,
            {{std::string(QSDescriptionErrorKey),
              "the page or anchor has expired; start again from the beginning"}}};
}

}  // namespace platform

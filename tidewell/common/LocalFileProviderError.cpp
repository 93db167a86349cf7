#include "tidewell/common/LocalFileProviderError.h"

namespace tidewell {

QSError makeError(LocalFileProviderError error) {
    const auto* text = error == LocalFileProviderError::itemLookupFailed
                           ? "there is no such item"
                           : "the volume of the document storage cannot be identified";
    return {std::string(LocalFileProviderErrorDomain),
            static_cast<std::int64_t>(error),
            {{std::string(QSDescriptionErrorKey), text}}};
}

}  // namespace tidewell

#pragma once

#include <string_view>

#include "platform/foundation/QSError.h"

namespace platform {

inline constexpr std::string_view QSFileProviderErrorDomain = "QSFileProviderErrorDomain";

inline constexpr std::int64_t QSFileProviderErrorSyncAnchorExpired = -1002;
inline constexpr std::int64_t QSFileProviderErrorNoSuchItem = -1005;

/// Under this key of userInfo the non-existent-item error names the identifier.
inline constexpr std::string_view QSFileProviderErrorNonExistentItemIdentifierKey =
    "QSFileProviderErrorNonExistentItemIdentifier";

/// The answer for an identifier that means no item (code QSFileProviderErrorNoSuchItem).
[[nodiscard]] QSError fileProviderErrorForNonExistentItemWithIdentifier(
    std::string_view identifier);

/// The one answer to a page token or anchor that can no longer be trusted.
[[nodiscard]] QSError syncAnchorExpiredError();

}  // namespace platform

#pragma once

#include <string_view>

#include "platform/fileprovider/QSFileProviderItem.h"
#include "platform/foundation/QSError.h"

namespace platform {

inline constexpr std::string_view QSFileProviderErrorDomain = "QSFileProviderErrorDomain";

inline constexpr std::int64_t QSFileProviderErrorFilenameCollision = -1001;
inline constexpr std::int64_t QSFileProviderErrorSyncAnchorExpired = -1002;
inline constexpr std::int64_t QSFileProviderErrorNoSuchItem = -1005;

/// Under this key of userInfo the non-existent-item error names the identifier.
inline constexpr std::string_view QSFileProviderErrorNonExistentItemIdentifierKey =
    "QSFileProviderErrorNonExistentItemIdentifier";

/// Under this key of userInfo the collision error names the item that has the name.
inline constexpr std::string_view QSFileProviderErrorCollidingItemIdentifierKey =
    "QSFileProviderErrorCollidingItemIdentifier";

/// What went wrong between host and extension about one call.
inline constexpr std::string_view QPErrorDomain = "QPErrorDomain";
inline constexpr std::int64_t QPItemNotFoundErrorCode = 1;
inline constexpr std::int64_t QPInvalidParameterErrorCode = 2;
inline constexpr std::string_view QPItemIdentifierErrorKey = "QPItemIdentifier";
inline constexpr std::string_view QPParameterNameErrorKey = "QPParameterName";
inline constexpr std::string_view QPParameterValueErrorKey = "QPParameterValue";

/// The answer for an identifier that means no item (code QSFileProviderErrorNoSuchItem).
[[nodiscard]] QSError fileProviderErrorForNonExistentItemWithIdentifier(
    std::string_view identifier);

/// The name that was asked for is an existing item's.
[[nodiscard]] QSError fileProviderErrorForCollisionWithItem(const QSFileProviderItem& item);

/// The item of a call is not there, or not any more.
[[nodiscard]] QSError QPItemNotFoundError(std::string_view identifier);
/// A call cannot be carried out with this value of this parameter.
[[nodiscard]] QSError QPInvalidParameterError(std::string_view name, std::string_view value);

/// The one answer to a page token or anchor that can no longer be trusted.
[[nodiscard]] QSError syncAnchorExpiredError();

}  // namespace platform

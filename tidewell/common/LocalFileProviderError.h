#pragma once

#include <cstdint>
#include <string_view>

#include "platform/foundation/QSError.h"

namespace tidewell {

using namespace platform;

inline constexpr std::string_view LocalFileProviderErrorDomain = "Tidewell.LocalFileProviderError";

/// The provider's own errors. The numbers are seen by hosts.
enum class LocalFileProviderError : std::int64_t {
    itemLookupFailed = 0,
    volumeIdentityUnknown = 3,
};

[[nodiscard]] QSError makeError(LocalFileProviderError error);

}  // namespace tidewell

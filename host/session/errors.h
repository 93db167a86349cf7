#pragma once

#include "platform/foundation/QSError.h"

#include <optional>

namespace host {

/// The page token or anchor can no longer be trusted; the listing starts again from an initial
/// page.
[[nodiscard]] bool meansExpired(const platform::QSError& error);

/// There is no such item: an unknown identifier, or a path at which nothing is.
[[nodiscard]] bool meansNoSuchItem(const platform::QSError& error);

/// The document service of another process has ended, or does not answer. Ask again: another one
/// may serve by then.
[[nodiscard]] bool meansServiceEnded(const platform::QSError& error);
[[nodiscard]] platform::QSError errorForEndedService();

/// The service has no extension just now, since that ended and another cannot be started.
[[nodiscard]] bool meansUnavailable(const platform::QSError& error);
/// `reason` is why the last start failed.
[[nodiscard]] platform::QSError errorForUnavailableExtension(
    const std::optional<platform::QSError>& reason);

/// The service ended during an operation, which may have been done or not, but not in part.
[[nodiscard]] bool meansMayBeDone(const platform::QSError& error);
[[nodiscard]] platform::QSError errorForInterruptedOperation();

}  // namespace host

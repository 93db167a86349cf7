#pragma once

#include "platform/foundation/QSError.h"

namespace host {

/// The page token or anchor can no longer be trusted; the listing starts again from an initial
/// page.
[[nodiscard]] bool meansExpired(const platform::QSError& error);

/// There is no such item: an unknown identifier, or a path at which nothing is.
[[nodiscard]] bool meansNoSuchItem(const platform::QSError& error);

}  // namespace host

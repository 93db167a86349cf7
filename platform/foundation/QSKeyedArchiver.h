#pragma once

#include "platform/foundation/QSPropertyList.h"

namespace platform {

/// The root object and what it holds as a keyed archive; equal roots give equal bytes. Fails with
/// code QSCoderInvalidValueError where a text is not UTF-8, the root holds a UID or is nested
/// deeper than an archive can be. Does not block; any thread.
[[nodiscard]] Result<QSData> archivedDataWithRootObject(const QSPropertyList& root);

}  // namespace platform

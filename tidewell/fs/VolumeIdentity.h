#pragma once

#include <cstdint>
#include <optional>

#include "platform/foundation/QSURL.h"
#include "platform/foundation/QSUUID.h"

namespace tidewell {

using namespace platform;

/// The event service's UUID of the volume that holds the URL; none where the device is unknown or
/// not the service's.
[[nodiscard]] std::optional<QSUUID> volumeUUID(const QSURL& url);

/// The last committed event ID of the history.
[[nodiscard]] std::uint64_t currentFSEventID();

/// The same once all that happened before the call is recorded, so that none of it looks like a
/// change that came later. Does not wait for the comparison at the start.
[[nodiscard]] std::uint64_t currentFSEventIDAfterCatchingUp();

}  // namespace tidewell

#pragma once

#include <optional>
#include <string>

#include "platform/foundation/QSData.h"
#include "platform/registry/QLApplicationProxy.h"

namespace tidewell {

using namespace platform;

/// The icon of the application that suits this device's class and screen scale best: of that scale,
/// else of the next lower ones down to 1. Blocks for the disk.
[[nodiscard]] std::optional<QSData> bestIconData(const QLApplicationProxy& application);

[[nodiscard]] std::string descriptionOf(const QLApplicationProxy& application);

}  // namespace tidewell

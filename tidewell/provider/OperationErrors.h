#pragma once

#include <string>

#include "platform/foundation/QSError.h"

namespace tidewell {

using namespace platform;

/// The error of an operation on URLs as the host expects it: a taken name becomes the collision
/// with the item that has it, an object that is not there the item with that identifier (where not
/// empty). May block for the file system.
[[nodiscard]] QSError normalisedError(QSError error, const std::string& identifier);

}  // namespace tidewell

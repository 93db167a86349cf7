#pragma once

#include <cstdint>

#include "platform/foundation/QSError.h"

namespace platform {

/// What the error of looking at one object says about it.
enum class LookFailure : std::uint8_t {
    Missing,     ///< nothing of this volume is there
    Unreadable,  ///< something may be there; the objects beside it can be read
    Unknown,     ///< nothing about the object: the process or the system was short of something
};
[[nodiscard]] LookFailure lookFailureOf(const QSError& error);

/// EBUSY, of an object that exists and was never where it had been a moment before.
[[nodiscard]] QSError movesAllTheTimeError();

}  // namespace platform

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/volume/ElapsedClock.h"

namespace platform {

/// A moment by two clocks, to find out later whether the wall clock was set since. The store keeps
/// the moment from which on anchors may have been handed out, as a text in the row of the storage
/// folder, until the first comparison of everything begins.
struct Beginning {
    std::int64_t wall = 0;    ///< seconds since 1970
    std::int64_t booted = 0;  ///< seconds since 1970: when the system started, by that wall clock
    std::string boot;         ///< another text for each boot

    [[nodiscard]] static Beginning now(const ElapsedClock::Sources& clocks);
    [[nodiscard]] std::string text() const;
    /// None if text() did not write this.
    [[nodiscard]] static std::optional<Beginning> fromText(std::string_view text);

    /// Whether times from between the two moments can be compared with either. False where the
    /// wall clock was set or the system was restarted.
    [[nodiscard]] bool isComparableTo(const Beginning& other) const;
};

}  // namespace platform

#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace platform {

/// The picture of a PNG or SVG file, as large as fits, in the middle of a square of `side` pixels,
/// in the form of IconFormat.h. Empty where the bytes are no such picture or too large a one.
/// REQUIRES: 1 <= side <= largestIconPixels.
[[nodiscard]] std::vector<std::uint32_t> renderIcon(std::span<const std::uint8_t> file, int side);

}  // namespace platform

#pragma once

#include <cstddef>
#include <cstdint>

// What the decoding program and those who start it agree on.

namespace platform {

inline constexpr std::size_t largestIconFile = 4 << 20;  ///< bytes
inline constexpr int largestIconPixels = 1024;           ///< of a side, as the program may render

/// What the program writes: this, then the rows from the top, each pixel 32 bits in the machine's
/// byte order: alpha, red, green and blue, the colours multiplied by alpha.
struct IconBitmapHeader {
    std::uint32_t magic = 0;
    std::uint32_t side = 0;  ///< width and height, the pixels that were asked for
};
inline constexpr std::uint32_t iconBitmapMagic = 0x3142'4951;

}  // namespace platform

#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

/// A 128-bit UUID, in the byte order of its text.
struct QSUUID {
    std::array<std::uint8_t, 16> bytes{};

    /// A random UUID (version 4) from the kernel's generator.
    [[nodiscard]] static QSUUID random();

    /// Reads the 36-character form, upper or lower case; nothing else.
    [[nodiscard]] static std::optional<QSUUID> fromString(std::string_view text);

    /// 36 characters, upper-case hexadecimal, groups 8-4-4-4-12.
    [[nodiscard]] std::string UUIDString() const;

    friend auto operator<=>(const QSUUID&, const QSUUID&) = default;
};

}  // namespace platform

#pragma once

#include <bit>
#include <cstdint>
#include <string_view>

namespace platform {

/// A checksum of one row. SQLite has none of its own, and an identity that reads well but is
/// another one is the worst damage of all.
class RowSum {
  public:
    RowSum& add(std::uint64_t value) {
        value_ = std::rotl(value_ ^ (value * 0x9E3779B97F4A7C15), 29) * 0xBF58476D1CE4E5B9;
        return *this;
    }
    RowSum& add(std::string_view text) {
        for (const char c : text) add(static_cast<std::uint8_t>(c));
        return add(text.size());
    }
    /// 32 bits, sign-extended so that they take four bytes in the file.
    [[nodiscard]] std::uint64_t value() const {
        const auto folded = static_cast<std::int32_t>(value_ ^ (value_ >> 32));
        return static_cast<std::uint64_t>(std::int64_t{folded});
    }

  private:
    std::uint64_t value_ = 0x7469646577656C6C;
};

}  // namespace platform

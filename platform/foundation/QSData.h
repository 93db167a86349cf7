#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace platform {

/// A byte buffer, a plain value.
using QSData = std::vector<std::uint8_t>;
using QSDataView = std::span<const std::uint8_t>;

[[nodiscard]] inline QSData dataFromString(std::string_view text) {
    return {text.begin(), text.end()};
}

/// The bytes as text, unchecked; valid as long as `data` is.
[[nodiscard]] inline std::string_view stringFromData(QSDataView data) {
    return {reinterpret_cast<const char*>(data.data()), data.size()};
}

}  // namespace platform

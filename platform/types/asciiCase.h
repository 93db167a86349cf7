#pragma once

#include <string>
#include <string_view>

namespace platform {

/// Names compare without case in ASCII only, as the MIME database's patterns do.
[[nodiscard]] constexpr char asciiLower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

[[nodiscard]] inline std::string asciiLower(std::string_view text) {
    std::string lower(text);
    for (char& c : lower) c = asciiLower(c);
    return lower;
}

}  // namespace platform

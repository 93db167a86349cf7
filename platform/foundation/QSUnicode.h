#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace platform {

/// True for well-formed UTF-8: shortest forms only, no surrogates, nothing above U+10FFFF. The
/// empty text is.
[[nodiscard]] bool isUTF8(std::string_view text);

/// Nothing where `text` is not UTF-8.
[[nodiscard]] std::optional<std::u16string> UTF16FromUTF8(std::string_view text);

/// Nothing where a surrogate stands alone.
[[nodiscard]] std::optional<std::string> UTF8FromUTF16(std::u16string_view text);

}  // namespace platform

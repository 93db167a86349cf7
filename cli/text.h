#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/QSData.h"
#include "platform/foundation/QSDate.h"

namespace cli {

/// Appends `text` as a JSON string, quotes included, valid UTF-8 whatever it holds. A byte that is
/// not part of well-formed UTF-8 becomes U+0000 and its two lower-case hexadecimal digits, and so
/// does a NUL itself. No name or path can hold a NUL, so every other one stands as it is and the
/// way back is unambiguous.
void appendJsonString(std::string& out, std::string_view text);

/// For a terminal: control characters, the Unicode ones that turn the direction of text, and bytes
/// that are not UTF-8 become "\n", "\x1b", "\u{202e}", "\xff"; a backslash is doubled.
[[nodiscard]] std::string escapedForTerminal(std::string_view text);

/// Powers of 1024, one decimal from KiB on: "999 B", "1.4 MiB".
[[nodiscard]] std::string humanSize(std::uint64_t bytes);

/// Local time to the minute: "2026-01-31 09:15".
[[nodiscard]] std::string humanDate(const platform::QSDate& date);

/// The standard alphabet with padding.
[[nodiscard]] std::string base64(platform::QSDataView data);
/// Nothing for text that base64() does not write.
[[nodiscard]] std::optional<platform::QSData> dataFromBase64(std::string_view text);

}  // namespace cli

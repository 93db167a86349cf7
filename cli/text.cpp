#include "cli/text.h"

#include <fmt/format.h>

#include <array>
#include <ctime>
#include <iterator>

#include "platform/foundation/QSUnicode.h"

namespace cli {

namespace {

constexpr std::string_view base64Alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::uint8_t byteAt(std::string_view text, std::size_t position) {
    return static_cast<std::uint8_t>(text[position]);
}

/// The length of the well-formed sequence that begins `text`; 0 where none does.
std::size_t sequenceLength(std::string_view text) {
    const auto lead = byteAt(text, 0);
    const std::size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    return length <= text.size() && platform::isUTF8(text.substr(0, length)) ? length : 0;
}

/// REQUIRES: a well-formed sequence of more than one byte.
char32_t codePoint(std::string_view sequence) {
    char32_t value = byteAt(sequence, 0) & (0x7FU >> sequence.size());
    for (std::size_t i = 1; i < sequence.size(); ++i) {
        value = value << 6 | (byteAt(sequence, i) & 0x3FU);
    }
    return value;
}

bool isUnfitForTerminal(char32_t c) {
    return (c >= 0x80 && c < 0xA0) || c == 0x61C || c == 0x200E || c == 0x200F ||
           (c >= 0x2028 && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069);
}

/// A control character or backslash as "\n" and the like, which JSON and terminals share; false
/// where it has no such form.
bool appendShortEscape(std::string& out, char c) {
    constexpr std::string_view characters = "\n\t\r\\";
    constexpr std::string_view letters = "ntr\\";
    const auto at = characters.find(c);
    if (at == std::string_view::npos) return false;
    out += '\\';
    out += letters[at];
    return true;
}

/// One ASCII character that JSON does not take as it is.
void appendJsonEscape(std::string& out, char c) {
    if (c == '"') {
        out += "\\\"";
    } else if (c == '\0') {
        out += "\\u000000";
    } else if (!appendShortEscape(out, c)) {
        fmt::format_to(std::back_inserter(out), "\\u{:04x}", byteAt({&c, 1}, 0));
    }
}

void appendTerminalEscape(std::string& out, char c) {
    if (appendShortEscape(out, c)) return;
    fmt::format_to(std::back_inserter(out), "\\x{:02x}", byteAt({&c, 1}, 0));
}

}  // namespace

void appendJsonString(std::string& out, std::string_view text) {
    out += '"';
    std::size_t plain = 0;  // where the run begins that goes out as it is
    for (std::size_t at = 0; at < text.size();) {
        const auto byte = byteAt(text, at);
        if (byte >= 0x20 && byte != '"' && byte != '\\' && byte < 0x80) {
            ++at;
            continue;
        }
        const auto length = byte < 0x80 ? 0 : sequenceLength(text.substr(at));
        if (length > 0) {
            at += length;
            continue;
        }
        out += text.substr(plain, at - plain);
        if (byte < 0x80) {
            appendJsonEscape(out, text[at]);
        } else {
            fmt::format_to(std::back_inserter(out), "\\u0000{:02x}", byte);
        }
        plain = ++at;
    }
    out += text.substr(plain);
    out += '"';
}

std::string escapedForTerminal(std::string_view text) {
    std::string out;
    for (std::size_t at = 0; at < text.size();) {
        const auto byte = byteAt(text, at);
        const auto length = sequenceLength(text.substr(at));
        const auto sequence = text.substr(at, length);
        at += length > 0 ? length : 1;
        if (length == 0 || byte < 0x20 || byte == 0x7F || byte == '\\') {
            appendTerminalEscape(out, static_cast<char>(byte));
        } else if (length > 1 && isUnfitForTerminal(codePoint(sequence))) {
            fmt::format_to(std::back_inserter(out), "\\u{{{:x}}}",
                           static_cast<std::uint32_t>(codePoint(sequence)));
        } else {
            out += sequence;
        }
    }
    return out;
}

std::string humanSize(std::uint64_t bytes) {
    constexpr std::array units{"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (bytes < 1024) return fmt::format("{} B", bytes);
    double value = static_cast<double>(bytes) / 1024;
    std::size_t unit = 0;
    // What would round to 1024.0 is 1.0 of the next unit.
    while (value >= 1023.95 && unit + 1 < units.size()) {
        value /= 1024;
        ++unit;
    }
    return fmt::format("{:.1f} {}", value, units[unit]);
}

std::string humanDate(const platform::QSDate& date) {
    const std::time_t seconds = date.seconds;
    std::tm local{};
    char text[64];
    if (!localtime_r(&seconds, &local)) return date.rfc3339();
    return {text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &local)};
}

std::string base64(platform::QSDataView data) {
    std::string text;
    text.reserve((data.size() + 2) / 3 * 4);
    for (std::size_t at = 0; at < data.size(); at += 3) {
        std::uint32_t group = 0;
        for (std::size_t i = 0; i < 3; ++i) {
            group = group << 8 | (at + i < data.size() ? data[at + i] : 0U);
        }
        for (std::size_t i = 0; i < 4; ++i) {
            const bool isPadding = at + i > data.size();
            text += isPadding ? '=' : base64Alphabet[group >> (18 - 6 * i) & 0x3F];
        }
    }
    return text;
}

std::optional<platform::QSData> dataFromBase64(std::string_view text) {
    platform::QSData data;
    std::uint32_t group = 0;
    std::size_t digits = 0;
    for (const char c : text) {
        const auto value = base64Alphabet.find(c);
        if (value == std::string_view::npos) break;
        group = group << 6 | static_cast<std::uint32_t>(value);
        if (++digits % 4 == 0) {
            for (const int shift : {16, 8, 0}) {
                data.push_back(static_cast<std::uint8_t>(group >> shift));
            }
        }
    }
    if (digits % 4 >= 2) data.push_back(static_cast<std::uint8_t>(group >> (6 * (digits % 4) - 8)));
    if (digits % 4 == 3) data.push_back(static_cast<std::uint8_t>(group >> 2));
    if (base64(data) != text) return std::nullopt;
    return data;
}

}  // namespace cli

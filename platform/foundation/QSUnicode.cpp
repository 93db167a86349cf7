#include "platform/foundation/QSUnicode.h"

namespace platform {

namespace {

constexpr bool isSurrogate(char32_t c) {
    return c >= 0xD800 && c <= 0xDFFF;
}

/// The code point at the front of `text`, which is cut off; nothing where it is malformed.
std::optional<char32_t> popCodePoint(std::string_view& text) {
    const auto lead = static_cast<unsigned char>(text.front());
    const std::size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    if (length > text.size() || (lead >= 0x80 && lead < 0xC2) || lead > 0xF4) return std::nullopt;
    constexpr unsigned char payloadMasks[] = {0x7F, 0x1F, 0x0F, 0x07};
    char32_t c = lead & payloadMasks[length - 1];
    for (std::size_t i = 1; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if ((byte & 0xC0) != 0x80) return std::nullopt;
        c = c << 6 | (byte & 0x3FU);
    }
    constexpr char32_t smallest[] = {0, 0x80, 0x800, 0x10000};
    if (c < smallest[length - 1] || c > 0x10FFFF || isSurrogate(c)) return std::nullopt;
    text.remove_prefix(length);
    return c;
}

void appendUTF8(std::string& text, char32_t c) {
    const auto append = [&](char32_t byte) { text += static_cast<char>(byte); };
    if (c < 0x80) {
        append(c);
        return;
    }
    if (c < 0x800) {
        append(0xC0 | c >> 6);
    } else {
        if (c < 0x10000) {
            append(0xE0 | c >> 12);
        } else {
            append(0xF0 | c >> 18);
            append(0x80 | (c >> 12 & 0x3F));
        }
        append(0x80 | (c >> 6 & 0x3F));
    }
    append(0x80 | (c & 0x3F));
}

}  // namespace

bool isUTF8(std::string_view text) {
    while (!text.empty()) {
        if (!popCodePoint(text)) return false;
    }
    return true;
}

std::optional<std::u16string> UTF16FromUTF8(std::string_view text) {
    std::u16string units;
    units.reserve(text.size());
    while (!text.empty()) {
        const auto c = popCodePoint(text);
        if (!c) return std::nullopt;
        if (*c < 0x10000) {
            units += static_cast<char16_t>(*c);
        } else {
            units += static_cast<char16_t>(0xD7C0 + (*c >> 10));
            units += static_cast<char16_t>(0xDC00 | (*c & 0x3FF));
        }
    }
    return units;
}

std::optional<std::string> UTF8FromUTF16(std::u16string_view text) {
    std::string result;
    result.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        char32_t c = text[i];
        if (isSurrogate(c)) {
            if (c >= 0xDC00 || i + 1 == text.size()) return std::nullopt;
            const char32_t low = text[++i];
            if (low < 0xDC00 || low > 0xDFFF) return std::nullopt;
            c = 0x10000 + ((c & 0x3FF) << 10 | (low & 0x3FF));
        }
        appendUTF8(result, c);
    }
    return result;
}

}  // namespace platform

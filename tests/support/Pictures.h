#pragma once

#include <cstdint>
#include <string>

namespace tests {

/// A square of one colour, drawn by any reader of the format.
inline std::string svg(const std::string& color, const std::string& more = {}) {
    return "<svg xmlns=\"http://www.w3.org/2000/svg\" "
           "xmlns:xlink=\"http://www.w3.org/1999/xlink\" viewBox=\"0 0 9 9\">"
           "<rect width=\"9\" height=\"9\" fill=\"" +
           color + "\"/>" + more + "</svg>";
}

/// The beginning of a PNG file that says it is that large, up to its (correct) header.
inline std::string pngHeader(std::uint32_t width, std::uint32_t height) {
    const auto bigEndian = [](std::uint32_t value) {
        std::string bytes;
        for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(value >> shift);
        return bytes;
    };
    const auto chunk =
        "IHDR" + bigEndian(width) + bigEndian(height) + std::string("\x08\x06\0\0\0", 5);
    std::uint32_t crc = ~0U;
    for (const char c : chunk) {
        crc ^= static_cast<std::uint8_t>(c);
        for (int i = 0; i < 8; ++i) crc = crc >> 1 ^ ((crc & 1) != 0 ? 0xEDB8'8320 : 0);
    }
    return "\x89PNG\r\n\x1a\n" + std::string("\0\0\0\x0d", 4) + chunk + bigEndian(~crc);
}

/// References that multiply: 10 to the power of 23 rectangles.
inline std::string endlessSVG() {
    std::string groups = "<defs><g id=\"g0\"><rect width=\"1\" height=\"1\"/></g>";
    for (int i = 1; i < 24; ++i) {
        groups += "<g id=\"g" + std::to_string(i) + "\">";
        for (int n = 0; n < 10; ++n) {
            groups += "<use xlink:href=\"#g" + std::to_string(i - 1) + "\"/>";
        }
        groups += "</g>";
    }
    return svg("red", groups + "</defs><use xlink:href=\"#g23\"/>");
}

inline std::string entityBomb() {
    std::string text = "<!DOCTYPE svg [<!ENTITY a0 \"aaaaaaaaaa\">";
    for (int i = 1; i < 12; ++i) {
        text += "<!ENTITY a" + std::to_string(i) + " \"";
        for (int n = 0; n < 10; ++n) text += "&a" + std::to_string(i - 1) + ";";
        text += "\">";
    }
    return text + "]>" + svg("red", "<text>&a11;</text>");
}

}  // namespace tests

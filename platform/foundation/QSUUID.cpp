#include "platform/foundation/QSUUID.h"

#include <sys/random.h>

#include "platform/foundation/fatalError.h"

namespace platform {

namespace {

constexpr bool isDash(std::size_t position) {
    return position == 8 || position == 13 || position == 18 || position == 23;
}

constexpr int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

QSUUID QSUUID::random() {
    QSUUID uuid;
    if (getrandom(uuid.bytes.data(), uuid.bytes.size(), 0) !=
        static_cast<ssize_t>(uuid.bytes.size())) {
        fatalError("the kernel's random generator gave no bytes");
    }
    uuid.bytes[6] = static_cast<std::uint8_t>((uuid.bytes[6] & 0x0F) | 0x40);
    uuid.bytes[8] = static_cast<std::uint8_t>((uuid.bytes[8] & 0x3F) | 0x80);
    return uuid;
}

std::optional<QSUUID> QSUUID::fromString(std::string_view text) {
    if (text.size() != 36) return std::nullopt;
    QSUUID uuid;
    std::size_t digits = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (isDash(i)) {
            if (text[i] != '-') return std::nullopt;
            continue;
        }
        const int value = hexValue(text[i]);
        if (value < 0) return std::nullopt;
        auto& byte = uuid.bytes[digits++ / 2];
        byte = static_cast<std::uint8_t>(byte << 4 | value);
    }
    return uuid;
}

std::string QSUUID::UUIDString() const {
    constexpr std::string_view hex = "0123456789ABCDEF";
    std::string text;
    text.reserve(36);
    for (const auto byte : bytes) {
        if (isDash(text.size())) text += '-';
        text += hex[byte >> 4];
        text += hex[byte & 0x0F];
    }
    return text;
}

}  // namespace platform

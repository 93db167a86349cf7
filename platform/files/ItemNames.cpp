#include "platform/files/ItemNames.h"

#include <sys/random.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <random>

namespace platform {

namespace {

constexpr std::size_t longestName = NAME_MAX;
constexpr std::size_t longestExtension = 16;
constexpr std::uint64_t triedInOrder = 100;

bool isASCIILetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

/// Where the extension begins, dot included; the size of the name where it has none.
std::size_t extensionStart(std::string_view name) {
    const auto dot = name.rfind('.');
    if (dot == std::string_view::npos || dot == 0) return name.size();
    const auto extension = name.substr(dot + 1);
    const bool looksLikeOne = extension.size() <= longestExtension &&
                              extension.find(' ') == std::string_view::npos &&
                              std::ranges::any_of(extension, isASCIILetter);
    return looksLikeOne ? dot : name.size();
}

/// At most `size` bytes of the beginning, whole UTF-8 sequences where it has any.
std::string_view cut(std::string_view text, std::size_t size) {
    if (text.size() <= size) return text;
    auto end = size;
    while (end > 0 && size - end < 4 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) {
        --end;
    }
    return text.substr(0, end);
}

}  // namespace

Result<void> checkName(std::string_view name) {
    const auto failure = [&](int code, std::string_view why) {
        auto error = errorFromErrno(code);
        error.userInfo.emplace(QSDescriptionErrorKey, why);
        return std::unexpected(std::move(error));
    };
    if (name.empty()) return failure(EINVAL, "a name must not be empty");
    if (name == "." || name == "..") return failure(EINVAL, "\".\" and \"..\" are not names");
    if (name.find('/') != std::string_view::npos) {
        return failure(EINVAL, "a name must not hold a \"/\"");
    }
    if (name.find('\0') != std::string_view::npos) {
        return failure(EINVAL, "a name must not hold a NUL");
    }
    if (name.starts_with(hiddenNamePrefix)) {
        return failure(EINVAL, "a name must not begin with \".tidewell-\"");
    }
    if (name.size() > longestName) {
        return failure(ENAMETOOLONG, "a name must not be longer than 255 bytes");
    }
    return {};
}

std::string numberedName(std::string_view name, std::uint64_t number) {
    const auto start = extensionStart(name);
    const auto ending = " " + std::to_string(number) + std::string(name.substr(start));
    return std::string(cut(name.substr(0, start), longestName - ending.size())) + ending;
}

std::uint64_t nextNumber(std::uint64_t attempt) {
    if (attempt < triedInOrder) return attempt + 1;
    thread_local std::minstd_rand random{std::random_device{}()};
    const auto doublings = std::min<std::uint64_t>(attempt - triedInOrder, 40);
    return std::uniform_int_distribution<std::uint64_t>(triedInOrder + 1,
                                                        triedInOrder << (doublings + 1))(random);
}

std::string hiddenName(std::string_view token) {
    return std::string(hiddenNamePrefix) + std::string(token);
}

std::string randomToken() {
    constexpr std::string_view characters = "abcdefghijklmnopqrstuvwxyz234567";
    std::array<unsigned char, 20> bytes{};
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        std::random_device device;
        std::ranges::generate(bytes, [&] { return static_cast<unsigned char>(device()); });
    }
    std::string token;
    for (const auto byte : bytes) token += characters[byte % characters.size()];
    return token;
}

}  // namespace platform

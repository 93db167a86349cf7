#pragma once

#include <iomanip>
#include <sstream>
#include <string>

#include "platform/foundation/QSData.h"

namespace tests {

/// "62 70" as bytes.
inline platform::QSData fromHex(std::string_view text) {
    platform::QSData bytes;
    std::istringstream digits{std::string(text)};
    for (std::string two; digits >> std::setw(2) >> two;) {
        bytes.push_back(static_cast<std::uint8_t>(std::stoi(two, nullptr, 16)));
    }
    return bytes;
}

inline void appendBigEndian(platform::QSData& bytes, std::uint64_t value, int size) {
    while (size-- > 0) bytes.push_back(static_cast<std::uint8_t>(value >> 8 * size));
}

/// A binary property list put together from raw objects, whatever they say; the first is the top.
/// Offsets take four bytes, references as many as the objects were written with.
inline platform::QSData binaryList(const std::vector<platform::QSData>& objects, int refSize = 1) {
    auto bytes = platform::dataFromString("bplist00");
    platform::QSData table;
    for (const auto& object : objects) {
        appendBigEndian(table, bytes.size(), 4);
        bytes.insert(bytes.end(), object.begin(), object.end());
    }
    const auto tableOffset = bytes.size();
    bytes.insert(bytes.end(), table.begin(), table.end());
    appendBigEndian(bytes, 0, 6);
    appendBigEndian(bytes, 4, 1);
    appendBigEndian(bytes, static_cast<std::uint64_t>(refSize), 1);
    appendBigEndian(bytes, objects.size(), 8);
    appendBigEndian(bytes, 0, 8);
    appendBigEndian(bytes, tableOffset, 8);
    return bytes;
}

/// An array of `count` references to one object, two bytes each.
inline platform::QSData arrayOfOne(std::uint64_t object, std::uint64_t count) {
    auto bytes = fromHex("af 12");
    appendBigEndian(bytes, count, 4);
    for (std::uint64_t i = 0; i < count; ++i) appendBigEndian(bytes, object, 2);
    return bytes;
}

}  // namespace tests

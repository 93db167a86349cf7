#include <algorithm>
#include <bit>
#include <map>

#include "platform/foundation/QSPropertyList.h"
#include "platform/foundation/QSUnicode.h"

namespace platform {

namespace {

void appendBigEndian(QSData& bytes, std::uint64_t value, std::size_t size) {
    for (std::size_t i = size; i-- > 0;) bytes.push_back(static_cast<std::uint8_t>(value >> 8 * i));
}

/// The exponent of the smallest of 1, 2, 4 and 8 bytes that hold `value`.
std::uint8_t sizeExponent(std::uint64_t value) {
    const auto bits = std::bit_width(value);
    return bits <= 8 ? 0 : bits <= 16 ? 1 : bits <= 32 ? 2 : 3;
}

void appendMarker(QSData& bytes, unsigned type, std::size_t info) {
    bytes.push_back(static_cast<std::uint8_t>(type << 4 | info));
}

void appendUnsigned(QSData& bytes, std::uint64_t value) {
    const auto exponent = sizeExponent(value);
    appendMarker(bytes, 0x1, exponent);
    appendBigEndian(bytes, value, std::size_t{1} << exponent);
}

void appendCountedMarker(QSData& bytes, unsigned type, std::size_t count) {
    appendMarker(bytes, type, std::min<std::size_t>(count, 0x0F));
    if (count >= 0x0F) appendUnsigned(bytes, count);
}

QSData encodedInteger(const QSPropertyList& value) {
    QSData bytes;
    if (const auto number = value.asSigned()) {
        if (*number >= 0) {
            appendUnsigned(bytes, static_cast<std::uint64_t>(*number));
        } else {
            appendMarker(bytes, 0x1, 3);
            appendBigEndian(bytes, static_cast<std::uint64_t>(*number), 8);
        }
    } else {
        appendMarker(bytes, 0x1, 4);  // sixteen bytes: eight would read as negative
        appendBigEndian(bytes, 0, 8);
        appendBigEndian(bytes, value.asUnsigned().value_or(0), 8);
    }
    return bytes;
}

Result<QSData> encodedString(std::string_view text) {
    QSData bytes;
    if (std::all_of(text.begin(), text.end(), [](char c) { return (c & 0x80) == 0; })) {
        appendCountedMarker(bytes, 0x5, text.size());
        bytes.insert(bytes.end(), text.begin(), text.end());
        return bytes;
    }
    const auto units = UTF16FromUTF8(text);
    if (!units) {
        return std::unexpected(mochaError(QSCoderInvalidValueError, "a string is not UTF-8"));
    }
    appendCountedMarker(bytes, 0x6, units->size());
    for (const auto unit : *units) appendBigEndian(bytes, unit, 2);
    return bytes;
}

QSData encodedReal(unsigned type, double value) {
    QSData bytes;
    appendMarker(bytes, type, 3);
    appendBigEndian(bytes, std::bit_cast<std::uint64_t>(value), 8);
    return bytes;
}

QSData encodedData(const QSData& data) {
    QSData bytes;
    appendCountedMarker(bytes, 0x4, data.size());
    bytes.insert(bytes.end(), data.begin(), data.end());
    return bytes;
}

QSData encodedUID(QSPropertyList::UID uid) {
    QSData bytes;
    const std::size_t size = std::size_t{1} << sizeExponent(uid.value);
    appendMarker(bytes, 0x8, size - 1);
    appendBigEndian(bytes, uid.value, size);
    return bytes;
}

Result<QSData> encodedScalar(const QSPropertyList& value) {
    if (const auto* text = value.asString()) return encodedString(*text);
    if (const auto* flag = value.asBool()) return QSData{static_cast<std::uint8_t>(*flag ? 9 : 8)};
    if (const auto* real = value.asReal()) return encodedReal(0x2, *real);
    if (const auto* date = value.asDate()) {
        return encodedReal(0x3, date->timeIntervalSinceReferenceDate());
    }
    if (const auto* data = value.asData()) return encodedData(*data);
    if (const auto* uid = value.asUID()) return encodedUID(*uid);
    return encodedInteger(value);
}

/// Numbers the objects in the order in which a reader meets them, equal scalars once.
class Writer {
  public:
    Result<QSData> write(const QSPropertyList& list) {
        if (const auto top = add(list, 0); !top) return std::unexpected(top.error());
        const std::size_t refSize = std::size_t{1} << sizeExponent(objects_.size() - 1);
        QSData bytes = dataFromString("bplist00");
        std::vector<std::uint64_t> offsets;
        for (const auto& object : objects_) {
            offsets.push_back(bytes.size());
            bytes.insert(bytes.end(), object.bytes.begin(), object.bytes.end());
            for (const auto reference : object.references) {
                appendBigEndian(bytes, reference, refSize);
            }
        }
        const auto table = bytes.size();
        const std::size_t offsetSize = std::size_t{1} << sizeExponent(table);
        for (const auto offset : offsets) appendBigEndian(bytes, offset, offsetSize);
        appendBigEndian(bytes, 0, 6);
        appendBigEndian(bytes, offsetSize, 1);
        appendBigEndian(bytes, refSize, 1);
        appendBigEndian(bytes, objects_.size(), 8);
        appendBigEndian(bytes, 0, 8);  // the top object
        appendBigEndian(bytes, table, 8);
        return bytes;
    }

  private:
    struct Object {
        QSData bytes;  ///< of a container the marker and count only
        std::vector<std::size_t> references = {};
    };

    /// The number of the object.
    Result<std::size_t> add(const QSPropertyList& value, std::size_t depth) {
        if (value.asArray() || value.asDictionary()) return addContainer(value, depth + 1);
        auto bytes = encodedScalar(value);
        if (!bytes) return std::unexpected(std::move(bytes.error()));
        const auto [known, isNew] = scalars_.try_emplace(*bytes, objects_.size());
        if (isNew) objects_.push_back({std::move(*bytes)});
        return known->second;
    }

    Result<std::size_t> addContainer(const QSPropertyList& value, std::size_t depth) {
        if (depth > QSPropertyListLimits{}.depth) {
            return std::unexpected(mochaError(QSCoderInvalidValueError, "nested too deeply"));
        }
        const auto number = objects_.size();
        auto& bytes = objects_.emplace_back().bytes;
        std::vector<std::size_t> references;
        const auto refer = [&](const QSPropertyList& member) -> Result<std::size_t> {
            auto reference = add(member, depth);
            if (reference) references.push_back(*reference);
            return reference;
        };
        if (const auto* array = value.asArray()) {
            appendCountedMarker(bytes, 0xA, array->size());
            for (const auto& element : *array) {
                if (auto added = refer(element); !added) return added;
            }
        } else {
            const auto& entries = *value.asDictionary();
            appendCountedMarker(bytes, 0xD, entries.size());
            for (const auto& [key, entry] : entries) {
                if (auto added = refer(key); !added) return added;
            }
            for (const auto& [key, entry] : entries) {
                if (auto added = refer(entry); !added) return added;
            }
        }
        objects_[number].references = std::move(references);
        return number;
    }

    std::vector<Object> objects_;
    std::map<QSData, std::size_t> scalars_;
};

}  // namespace

Result<QSData> binaryData(const QSPropertyList& list) {
    return Writer().write(list);
}

}  // namespace platform

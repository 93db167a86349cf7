#include <bit>
#include <cmath>

#include "platform/foundation/ExpansionBudget.h"
#include "platform/foundation/QSPropertyList.h"
#include "platform/foundation/QSUnicode.h"

namespace platform {

namespace {

constexpr std::string_view header = "bplist00";
constexpr std::size_t trailerSize = 32;

std::uint64_t bigEndian(QSDataView bytes) {
    std::uint64_t value = 0;
    for (const auto byte : bytes) value = value << 8 | byte;
    return value;
}

std::unexpected<QSError> corrupt(std::string_view what) {
    return std::unexpected(mochaError(QSFileReadCorruptFileError, what));
}

std::unexpected<QSError> tooFar() {
    return corrupt("the property list expands too far");
}

/// Reads object after object, each afresh for every reference to it: the budget bounds what that
/// makes of shared objects, and a cycle ends at the limit of the depth.
class Reader {
  public:
    Reader(QSDataView data, const QSPropertyListLimits& limits)
        : data_(data), limits_(limits), budget_(limits.expandedBytes) {}

    Result<QSPropertyList> read() {
        if (data_.size() > limits_.bytes) return corrupt("the property list is too large");
        if (const auto flaw = readTrailer(); !flaw.empty()) return corrupt(flaw);
        return object(top_, 0);
    }

  private:
    /// The rest of one object: everything from its marker's low nibble to the offset table.
    struct Body {
        std::uint8_t info;
        QSDataView bytes;
    };

    /// Returns what is wrong; empty where nothing is.
    std::string_view readTrailer() {
        if (data_.size() < header.size() + trailerSize ||
            !stringFromData(data_).starts_with(header)) {
            return "not a binary property list";
        }
        const auto trailer = data_.last(trailerSize);
        const std::size_t offsetSize = trailer[6];
        refSize_ = trailer[7];
        const auto count = bigEndian(trailer.subspan(8, 8));
        top_ = bigEndian(trailer.subspan(16, 8));
        const auto table = bigEndian(trailer.subspan(24, 8));
        const std::size_t end = data_.size() - trailerSize;
        if (offsetSize < 1 || offsetSize > 8 || refSize_ < 1 || refSize_ > 8) {
            return "the trailer has a wrong integer size";
        }
        if (table <= header.size() || table > end) return "the offset table lies outside";
        if (count > limits_.objects) return "the property list has too many objects";
        if (count > (end - table) / offsetSize) return "the offset table is cut off";
        objects_ = data_.first(table);
        offsets_ = data_.subspan(table, count * offsetSize);
        offsetSize_ = offsetSize;
        return {};
    }

    Result<QSPropertyList> object(std::uint64_t index, std::size_t depth) {
        if (index >= offsets_.size() / offsetSize_) return corrupt("a reference leads nowhere");
        const auto offset = bigEndian(offsets_.subspan(index * offsetSize_, offsetSize_));
        if (offset < header.size() || offset >= objects_.size())
            return corrupt("an offset lies outside");
        const auto marker = objects_[offset];
        const Body body{static_cast<std::uint8_t>(marker & 0x0F), objects_.subspan(offset + 1)};
        switch (marker >> 4) {
            case 0x0:
                if (body.info == 8 || body.info == 9) return body.info == 9;
                break;
            case 0x1:
                return integer(body);
            case 0x2:
                return real(body);
            case 0x3:
                return date(body);
            case 0x4:
                return dataBytes(body);
            case 0x5:
                return ASCIIString(body);
            case 0x6:
                return UTF16String(body);
            case 0x8:
                return UID(body);
            case 0xA:
                return array(body, depth + 1);
            case 0xD:
                return dictionary(body, depth + 1);
            default:
                break;
        }
        return corrupt("an object is of an unknown type");
    }

    static Result<QSPropertyList> integer(Body body) {
        const std::size_t size = std::size_t{1} << body.info;
        if (size > 16 || size > body.bytes.size()) return corrupt("a bad integer");
        if (size == 16) {
            if (bigEndian(body.bytes.first(8)) != 0) return corrupt("an integer is out of range");
            return bigEndian(body.bytes.subspan(8, 8));
        }
        const auto value = bigEndian(body.bytes.first(size));
        // Eight bytes are signed, fewer are not.
        return static_cast<std::int64_t>(value);
    }

    static std::optional<double> floatingPoint(Body body) {
        if (body.info == 3 && body.bytes.size() >= 8) {
            return std::bit_cast<double>(bigEndian(body.bytes.first(8)));
        }
        if (body.info == 2 && body.bytes.size() >= 4) {
            const auto bits = static_cast<std::uint32_t>(bigEndian(body.bytes.first(4)));
            return std::bit_cast<float>(bits);
        }
        return std::nullopt;
    }

    static Result<QSPropertyList> real(Body body) {
        const auto value = floatingPoint(body);
        if (!value) return corrupt("a bad real");
        return *value;
    }

    static Result<QSPropertyList> date(Body body) {
        const auto interval = body.info == 3 ? floatingPoint(body) : std::nullopt;
        if (!interval || !std::isfinite(*interval)) return corrupt("a bad date");
        return QSDate::dateWithTimeIntervalSinceReferenceDate(*interval);
    }

    static Result<QSPropertyList> UID(Body body) {
        const std::size_t size = body.info + std::size_t{1};
        if (size > 8 || size > body.bytes.size()) return corrupt("a bad UID");
        return QSPropertyList::UID{bigEndian(body.bytes.first(size))};
    }

    /// The `count * unit` bytes of a body whose marker or following integer holds the count.
    static std::optional<QSDataView> counted(Body body, std::size_t unit) {
        std::uint64_t count = body.info;
        if (count == 0x0F) {
            if (body.bytes.empty() || body.bytes[0] < 0x10 || body.bytes[0] > 0x13)
                return std::nullopt;
            const std::size_t size = std::size_t{1} << (body.bytes[0] & 0x0F);
            if (size + 1 > body.bytes.size()) return std::nullopt;
            count = bigEndian(body.bytes.subspan(1, size));
            body.bytes = body.bytes.subspan(1 + size);
        }
        if (count > body.bytes.size() / unit) return std::nullopt;
        return body.bytes.first(count * unit);
    }

    Result<QSPropertyList> dataBytes(Body body) {
        const auto bytes = counted(body, 1);
        if (!bytes) return corrupt("data is cut off");
        if (!budget_.spend(bytes->size())) return tooFar();
        return QSData(bytes->begin(), bytes->end());
    }

    Result<QSPropertyList> ASCIIString(Body body) {
        const auto bytes = counted(body, 1);
        if (!bytes) return corrupt("a string is cut off");
        if (!budget_.spend(bytes->size())) return tooFar();
        for (const auto byte : *bytes) {
            if (byte >= 0x80) return corrupt("a string is not ASCII");
        }
        return stringFromData(*bytes);
    }

    Result<QSPropertyList> UTF16String(Body body) {
        const auto bytes = counted(body, 2);
        if (!bytes) return corrupt("a string is cut off");
        // One unit takes up to three bytes of UTF-8, and two while it is converted.
        if (!budget_.spend(bytes->size() / 2 * 5)) return tooFar();
        std::u16string units;
        units.reserve(bytes->size() / 2);
        for (std::size_t i = 0; i < bytes->size(); i += 2) {
            units += static_cast<char16_t>(bigEndian(bytes->subspan(i, 2)));
        }
        auto text = UTF8FromUTF16(units);
        if (!text) return corrupt("a string holds a lone surrogate");
        return std::move(*text);
    }

    std::uint64_t reference(QSDataView references, std::size_t index) const {
        return bigEndian(references.subspan(index * refSize_, refSize_));
    }

    Result<QSPropertyList> array(Body body, std::size_t depth) {
        if (depth > limits_.depth) return corrupt("the property list is nested too deeply");
        const auto references = counted(body, refSize_);
        if (!references) return corrupt("an array is cut off");
        const std::size_t count = references->size() / refSize_;
        if (!budget_.spend(count * sizeof(QSPropertyList))) return tooFar();
        QSPropertyList::Array elements;
        elements.reserve(count);
        for (std::size_t i = 0; i < count; ++i) {
            auto element = object(reference(*references, i), depth);
            if (!element) return element;
            elements.push_back(std::move(*element));
        }
        return elements;
    }

    Result<QSPropertyList> dictionary(Body body, std::size_t depth) {
        if (depth > limits_.depth) return corrupt("the property list is nested too deeply");
        const auto references = counted(body, 2 * refSize_);
        if (!references) return corrupt("a dictionary is cut off");
        const std::size_t count = references->size() / refSize_ / 2;
        if (!budget_.spend(count * ExpansionBudget::dictionaryEntry)) return tooFar();
        QSPropertyList::Dictionary entries;
        for (std::size_t i = 0; i < count; ++i) {
            const auto key = object(reference(*references, i), depth);
            if (!key) return key;
            if (!key->asString()) return corrupt("a key is not a string");
            auto value = object(reference(*references, count + i), depth);
            if (!value) return value;
            if (!entries.emplace(*key->asString(), std::move(*value)).second) {
                return corrupt("a key occurs twice");
            }
        }
        return entries;
    }

    const QSDataView data_;
    const QSPropertyListLimits& limits_;
    ExpansionBudget budget_;

    // Constant after readTrailer.
    QSDataView objects_;  // from the header to the offset table
    QSDataView offsets_;
    std::size_t offsetSize_ = 1;
    std::size_t refSize_ = 1;
    std::uint64_t top_ = 0;
};

}  // namespace

Result<QSPropertyList> propertyListWithBinaryData(QSDataView data,
                                                  const QSPropertyListLimits& limits) {
    return Reader(data, limits).read();
}

}  // namespace platform

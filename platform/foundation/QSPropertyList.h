#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "platform/foundation/QSData.h"
#include "platform/foundation/QSDate.h"
#include "platform/foundation/QSError.h"

namespace platform {

/// A property list in memory: a tree of values. Strings and keys are UTF-8. A plain value, safe to
/// read from any thread; copying copies the tree.
class QSPropertyList {
  public:
    using Array = std::vector<QSPropertyList>;
    using Dictionary = std::map<std::string, QSPropertyList, std::less<>>;
    /// A reference inside a keyed archive.
    struct UID {
        std::uint64_t value = 0;
        friend bool operator==(UID, UID) = default;
    };

    QSPropertyList(std::string value) : value_(std::move(value)) {}
    QSPropertyList(std::string_view value) : value_(std::string(value)) {}
    QSPropertyList(const char* value) : value_(std::string(value)) {}
    QSPropertyList(double value) : value_(value) {}
    QSPropertyList(QSDate value) : value_(value) {}
    QSPropertyList(QSData value) : value_(std::move(value)) {}
    QSPropertyList(UID value) : value_(value) {}
    QSPropertyList(Array value) : value_(std::move(value)) {}
    QSPropertyList(Dictionary value) : value_(std::move(value)) {}

    /// A boolean, or an integer of any type; integers of one value are equal whatever their type.
    template <std::integral T>
    QSPropertyList(T value) {
        if constexpr (std::same_as<T, bool>) {
            value_ = value;
        } else if (std::in_range<std::int64_t>(value)) {
            value_ = static_cast<std::int64_t>(value);
        } else {
            value_ = static_cast<std::uint64_t>(value);
        }
    }

    // The value where it is of the kind asked for; null otherwise. Valid as long as this is.
    [[nodiscard]] const bool* asBool() const { return std::get_if<bool>(&value_); }
    [[nodiscard]] const double* asReal() const { return std::get_if<double>(&value_); }
    [[nodiscard]] const std::string* asString() const { return std::get_if<std::string>(&value_); }
    [[nodiscard]] const QSDate* asDate() const { return std::get_if<QSDate>(&value_); }
    [[nodiscard]] const QSData* asData() const { return std::get_if<QSData>(&value_); }
    [[nodiscard]] const UID* asUID() const { return std::get_if<UID>(&value_); }
    [[nodiscard]] const Array* asArray() const { return std::get_if<Array>(&value_); }
    [[nodiscard]] const Dictionary* asDictionary() const {
        return std::get_if<Dictionary>(&value_);
    }

    /// An integer that fits; nothing for any other value, a real or a boolean among them.
    [[nodiscard]] std::optional<std::int64_t> asSigned() const;
    [[nodiscard]] std::optional<std::uint64_t> asUnsigned() const;

    /// The entry of a dictionary; null where there is none or this is no dictionary.
    [[nodiscard]] const QSPropertyList* find(std::string_view key) const;

    friend bool operator==(const QSPropertyList&, const QSPropertyList&) = default;

  private:
    // An integer is a uint64_t only from 2^63 on.
    std::variant<bool, std::int64_t, std::uint64_t, double, std::string, QSDate, QSData, UID, Array,
                 Dictionary>
        value_;
};

/// What a reader accepts. The defaults suit values of the size of an extended attribute and keep
/// reading, the result included, below 1 MiB of memory.
struct QSPropertyListLimits {
    std::size_t bytes = 64 * 1024;  ///< of the input
    std::size_t depth = 32;         ///< of containers within containers
    std::size_t objects = 8192;     ///< stored (binary); of tags half as many (XML)
    /// Memory of the value read. A stored object counts once per reference to it.
    std::size_t expandedBytes = 384 * 1024;
};

/// Reads a binary property list, or an XML one in UTF-8. Anything malformed, ambiguous (a key
/// twice), cyclic or beyond `limits` is refused with code QSFileReadCorruptFileError, before memory
/// is taken for it. A date beyond what QSDate can write saturates.
[[nodiscard]] Result<QSPropertyList> propertyListWithData(QSDataView data,
                                                          const QSPropertyListLimits& limits = {});

/// The binary form alone.
[[nodiscard]] Result<QSPropertyList> propertyListWithBinaryData(QSDataView data,
                                                                const QSPropertyListLimits& limits);

/// The XML form alone. Document types with declarations of their own are refused; no entity but the
/// five predefined ones is known.
[[nodiscard]] Result<QSPropertyList> propertyListWithXMLData(QSDataView data,
                                                             const QSPropertyListLimits& limits);

/// The binary form; equal values give equal bytes. Fails with code QSCoderInvalidValueError where
/// text is not UTF-8 or containers are nested deeper than the default limit.
[[nodiscard]] Result<QSData> binaryData(const QSPropertyList& list);

}  // namespace platform

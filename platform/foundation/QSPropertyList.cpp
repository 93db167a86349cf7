#include "platform/foundation/QSPropertyList.h"

#include <algorithm>

namespace platform {

std::optional<std::int64_t> QSPropertyList::asSigned() const {
    if (const auto* value = std::get_if<std::int64_t>(&value_)) return *value;
    return std::nullopt;
}

std::optional<std::uint64_t> QSPropertyList::asUnsigned() const {
    if (const auto* value = std::get_if<std::uint64_t>(&value_)) return *value;
    const auto* value = std::get_if<std::int64_t>(&value_);
    if (value && *value >= 0) return static_cast<std::uint64_t>(*value);
    return std::nullopt;
}

const QSPropertyList* QSPropertyList::find(std::string_view key) const {
    const auto* dictionary = asDictionary();
    if (!dictionary) return nullptr;
    const auto found = dictionary->find(key);
    return found == dictionary->end() ? nullptr : &found->second;
}

Result<QSPropertyList> propertyListWithData(QSDataView data, const QSPropertyListLimits& limits) {
    const auto text = stringFromData(data);
    if (text.starts_with("bplist")) return propertyListWithBinaryData(data, limits);
    constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
    const auto start = text.starts_with(byteOrderMark) ? byteOrderMark.size() : 0;
    const auto first = text.find_first_not_of(" \t\r\n", start);
    if (first != std::string_view::npos && text[first] == '<') {
        return propertyListWithXMLData(data, limits);
    }
    return std::unexpected(mochaError(QSFileReadCorruptFileError, "not a property list"));
}

}  // namespace platform

#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>

#include "platform/foundation/QSData.h"
#include "platform/foundation/QSDate.h"

namespace platform {

/// The resource values that a file URL may have.
enum class QSResourceKey : std::uint8_t {
    ParentDirectoryURL,
    Name,
    LocalizedName,
    TypeIdentifier,
    FileSize,
    CreationDate,
    ContentModificationDate,
    IsReadable,
    IsWritable,
    IsPackage,
    IsDirectory,
    FileID,              ///< the identifier of a plain folder or other object, kept by the volume
    DocumentIdentifier,  ///< the document ID of a file or package
};

/// The key as logs name it, for instance "QSURLNameKey".
[[nodiscard]] std::string_view nameOfResourceKey(QSResourceKey key);

/// monostate is "no value". A number is unsigned: sizes and identifiers. A URL stands as its path.
using QSResourceValue =
    std::variant<std::monostate, bool, std::uint64_t, std::string, QSDate, QSData>;

/// "QSNumber", "QSString" and so on, for messages.
[[nodiscard]] std::string_view classNameOfResourceValue(const QSResourceValue& value);

}  // namespace platform

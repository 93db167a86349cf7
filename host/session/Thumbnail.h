#pragma once

#include <optional>
#include <string>

#include "platform/foundation/QSData.h"

namespace host {

/// A picture that stands for an item: a plain value.
struct Thumbnail {
    std::string itemIdentifier;
    std::optional<platform::QSData> picture;  ///< the bytes of a file; none: it has no such
    std::optional<std::string> type;          ///< of that file
};

}  // namespace host

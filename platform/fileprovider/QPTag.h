#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/QSData.h"

namespace platform {

/// A tag as the host shows it. Colour 0 is none; 1 to 7 are the host's palette.
struct QPTag {
    std::string label;
    std::uint8_t color = 0;

    friend bool operator==(const QPTag&, const QPTag&) = default;
};

/// The list as the bytes that items carry: a binary property list, an array of dictionaries
/// {"label", "color"}. An empty list has bytes too. A tag whose label is not UTF-8 or whose colour
/// is no colour is left out.
[[nodiscard]] QSData QPGetTagsDataForTags(const std::vector<QPTag>& tags);

/// The way back. Nothing for bytes that are no such list.
[[nodiscard]] std::optional<std::vector<QPTag>> QPGetTagsFromTagsData(QSDataView data);

}  // namespace platform

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/QSDate.h"

namespace CLI {
class App;
}

namespace cli {

/// What the commands about tags, ranks, dates and thumbnails are given.
struct MetadataArguments {
    bool clear = false;
    std::vector<std::string> labels;
    std::optional<std::uint64_t> rank;
    std::optional<platform::QSDate> date;
    std::vector<std::string> items;  ///< as typed
    std::string folder;              ///< that thumbnails go to

    /// Whether an item is to be given something.
    [[nodiscard]] bool hasValue() const { return !labels.empty() || rank || date; }
};

// Each gives a sub-command its options, stored in `into`, which must outlive the parser. Text that
// is wrong is refused by the parser.
void addTagOptions(CLI::App& command, MetadataArguments& into);
void addRankOptions(CLI::App& command, MetadataArguments& into);
void addDateOptions(CLI::App& command, MetadataArguments& into);
void addThumbnailOptions(CLI::App& command, MetadataArguments& into);

}  // namespace cli

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "host/session/ItemRecord.h"
#include "platform/foundation/QSData.h"
#include "platform/foundation/QSError.h"

namespace host {

/// Which of the two initial pages a listing begins with. The order of the items is the extension's.
enum class Order : std::uint8_t { ByName, ByDate };

/// Opaque bytes that name the page after another one. Resumes only while the service lives that
/// gave it out.
using PageToken = platform::QSData;

/// Where a page begins: at the start of the container or at a token.
using PageStart = std::variant<Order, PageToken>;

/// One page. Items that came before an error are good all the same.
struct Page {
    std::vector<ItemRecord> items;
    /// None: the container is exhausted.
    platform::Result<std::optional<PageToken>> next;
};

/// Opaque bytes: a position in what happened to a container. Outlives the service; to be kept.
using Anchor = platform::QSData;

/// What happened to a container after an anchor, or the first part of it. No identifier is in both
/// lists.
struct ChangePage {
    std::vector<ItemRecord> updates;     ///< new ones too, as they are now
    std::vector<std::string> deletions;  ///< identifiers of what is no longer in the container
    Anchor anchor;                       ///< the position up to which this is complete
    bool moreComing = false;             ///< ask on from `anchor`
};

}  // namespace host

#pragma once

#include <cstdint>
#include <optional>
#include <variant>
#include <vector>

#include "host/ItemRecord.h"
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

}  // namespace host

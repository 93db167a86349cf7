#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/foundation/QSData.h"
#include "platform/foundation/QSDate.h"
#include "platform/foundation/QSURL.h"
#include "platform/volume/TrashLedger.h"

// The user metadata that an object carries in its extended attributes, decoded. None if the
// attribute is missing, unreadable or holds anything else; a value that does not decode is not
// logged. Blocks for the file system where the URL does not keep that the attribute is missing.

namespace tidewell {

using namespace platform;

[[nodiscard]] std::optional<QSDate> lastUsedDateOf(const QSURL& url);
/// The labels as the host's tag data; an empty list has bytes too.
[[nodiscard]] std::optional<QSData> tagDataOf(const QSURL& url);
[[nodiscard]] std::optional<std::uint64_t> favoriteRankOf(const QSURL& url);
struct RecordOfTrash : TrashRecord {
    /// Whether the record counts more than the attributes, which belong to several names.
    bool isDecisive = false;
};
/// What the ledger of the trash says about what is at the URL.
[[nodiscard]] std::optional<RecordOfTrash> trashRecordOf(const QSURL& url);
/// The put-back record's path, relative to the library; its attribute and errors are logged under
/// `item`, the description of the item that asks.
[[nodiscard]] std::optional<std::string> putBackPathOf(const QSURL& url, const std::string& item);

}  // namespace tidewell

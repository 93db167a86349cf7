#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/QSData.h"
#include "platform/foundation/QSDate.h"

namespace host {

/// One item as clients of the document service see it: a plain value that owns all it holds.
/// Missing values are std::nullopt. Names and paths are bytes as on disk and need not be UTF-8.
struct ItemRecord {
    std::string itemIdentifier;
    std::string parentItemIdentifier;
    std::string filename;
    std::string typeIdentifier;
    std::optional<std::uint64_t> documentSize;  ///< bytes
    std::optional<platform::QSDate> creationDate;
    std::optional<platform::QSDate> contentModificationDate;
    std::optional<std::uint16_t> childItemCount;
    std::uint64_t capabilities = 0;  ///< bits of QSFileProviderItemCapabilities
    std::optional<platform::QSData> versionIdentifier;
    bool isTrashed = false;
    std::optional<platform::QSDate> lastUsedDate;
    std::optional<std::vector<std::string>> tags;  ///< labels in the user's order
    std::optional<std::uint64_t> favoriteRank;
    std::optional<std::int64_t> fileID;
    std::optional<std::int64_t> docID;
    std::optional<std::string> path;  ///< native and absolute
    std::optional<std::string> beaconDomainIdentifier;
    std::optional<std::string> appContainerBundleIdentifier;
    bool isContainer = false;

    /// A folder that clients browse into: no package, no link.
    [[nodiscard]] bool isFolder() const;

    friend bool operator==(const ItemRecord&, const ItemRecord&) = default;
};

}  // namespace host

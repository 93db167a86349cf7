#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/QSData.h"
#include "platform/foundation/QSDate.h"
#include "platform/foundation/QSURL.h"

namespace platform {

using QSFileProviderItemIdentifier = std::string;

inline constexpr std::string_view QSFileProviderRootContainerItemIdentifier =
    "QSFileProviderRootContainerItemIdentifier";
inline constexpr std::string_view QSFileProviderWorkingSetContainerItemIdentifier =
    "QSFileProviderWorkingSetContainerItemIdentifier";
inline constexpr std::string_view QSFileProviderAllDirectoriesContainerItemIdentifier =
    "QSFileProviderAllDirectoriesContainerItemIdentifier";
inline constexpr std::string_view QSFileProviderTemporaryLocalFolderItemIdentifier =
    "QSFileProviderTemporaryLocalFolderItemIdentifier";

/// A bit set of what the host may offer for an item.
using QSFileProviderItemCapabilities = std::uint64_t;
inline constexpr QSFileProviderItemCapabilities QSFileProviderItemCapabilitiesAllowsReading = 1;
inline constexpr QSFileProviderItemCapabilities
    QSFileProviderItemCapabilitiesAllowsContentEnumerating = 1;
inline constexpr QSFileProviderItemCapabilities QSFileProviderItemCapabilitiesAllowsWriting = 2;
inline constexpr QSFileProviderItemCapabilities QSFileProviderItemCapabilitiesAllowsAddingSubItems =
    2;
inline constexpr QSFileProviderItemCapabilities QSFileProviderItemCapabilitiesAllowsReparenting = 4;
inline constexpr QSFileProviderItemCapabilities QSFileProviderItemCapabilitiesAllowsRenaming = 8;
inline constexpr QSFileProviderItemCapabilities QSFileProviderItemCapabilitiesAllowsTrashing = 16;
inline constexpr QSFileProviderItemCapabilities QSFileProviderItemCapabilitiesAllowsDeleting = 32;

/// One item as the extension hands it to the host. Safe to read from any thread. Missing values are
/// std::nullopt.
class QSFileProviderItem {
  public:
    virtual ~QSFileProviderItem() = default;

    [[nodiscard]] virtual QSFileProviderItemIdentifier itemIdentifier() const = 0;
    [[nodiscard]] virtual QSFileProviderItemIdentifier parentItemIdentifier() const = 0;
    [[nodiscard]] virtual std::string filename() const = 0;  ///< bytes as on disk
    [[nodiscard]] virtual std::string typeIdentifier() const = 0;
    [[nodiscard]] virtual std::optional<std::uint64_t> documentSize() const = 0;  ///< bytes
    [[nodiscard]] virtual std::optional<QSDate> creationDate() const = 0;
    [[nodiscard]] virtual std::optional<QSDate> contentModificationDate() const = 0;
    [[nodiscard]] virtual std::optional<std::uint16_t> childItemCount() const = 0;
    [[nodiscard]] virtual QSFileProviderItemCapabilities capabilities() const = 0;
    [[nodiscard]] virtual std::optional<QSData> versionIdentifier() const = 0;
    [[nodiscard]] virtual bool isTrashed() const = 0;
    [[nodiscard]] virtual std::optional<QSDate> lastUsedDate() const = 0;
    [[nodiscard]] virtual std::optional<QSData> tagData() const = 0;  ///< see QPTag
    [[nodiscard]] virtual std::optional<std::uint64_t> favoriteRank() const = 0;
    [[nodiscard]] virtual std::optional<std::int64_t> fileID() const = 0;
    [[nodiscard]] virtual std::optional<std::int64_t> docID() const = 0;
    [[nodiscard]] virtual std::optional<QSURL> fileURL() const = 0;
    [[nodiscard]] virtual std::optional<std::string> qp_beaconDomainIdentifier() const = 0;
    [[nodiscard]] virtual std::optional<std::string> qp_appContainerBundleIdentifier() const = 0;
    [[nodiscard]] virtual bool qp_isUbiquitous() const = 0;
    [[nodiscard]] virtual bool qp_isContainer() const = 0;
};

using ItemRef = std::shared_ptr<const QSFileProviderItem>;

}  // namespace platform

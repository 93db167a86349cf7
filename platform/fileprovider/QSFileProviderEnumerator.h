#pragma once

#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/fileprovider/QSFileProviderItem.h"
#include "platform/foundation/QSData.h"
#include "platform/foundation/QSError.h"

namespace platform {

/// A page token: opaque bytes, or the UTF-8 bytes of one of the two initial pages.
using QSFileProviderPage = QSData;
inline constexpr std::string_view QSFileProviderInitialPageSortedByName = "initialPageSortedByName";
inline constexpr std::string_view QSFileProviderInitialPageSortedByDate = "initialPageSortedByDate";

/// Receives one page. Calls come one after another, on any thread: any number of didEnumerateItems,
/// then exactly one of the two finishing calls. Items sent before an error stay sent.
class QSFileProviderEnumerationObserver {
  public:
    virtual ~QSFileProviderEnumerationObserver() = default;
    virtual void didEnumerateItems(std::vector<ItemRef> items) = 0;
    /// No next page: the container is exhausted.
    virtual void finishEnumeratingUpToPage(std::optional<QSFileProviderPage> nextPage) = 0;
    virtual void finishEnumeratingWithError(QSError error) = 0;
};

/// Lists one container. Any thread, and several pages at once. A page token that can no longer be
/// trusted is answered with QSFileProviderErrorSyncAnchorExpired.
class QSFileProviderEnumerator {
  public:
    virtual ~QSFileProviderEnumerator() = default;

    /// Yields one page from `startingAtPage`. May call the observer before it returns; blocks for
    /// the file system.
    virtual void enumerateItemsForObserver(
        std::shared_ptr<QSFileProviderEnumerationObserver> observer,
        const QSFileProviderPage& startingAtPage) = 0;

    /// The host is done with the enumerator. May be called more than once.
    virtual void invalidate() = 0;
};

}  // namespace platform

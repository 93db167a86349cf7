#pragma once

#include <functional>
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

/// A position in what happened to a container; opaque bytes.
using QSFileProviderSyncAnchor = QSData;

/// Receives the changes of one enumeration. Calls come one after another, on any thread: any number
/// of the first two, updates before deletions, no identifier in both, then exactly one of the
/// finishing calls.
class QSFileProviderChangeObserver {
  public:
    virtual ~QSFileProviderChangeObserver() = default;
    virtual void didUpdateItems(std::vector<ItemRef> items) = 0;
    virtual void didDeleteItemsWithIdentifiers(
        std::vector<QSFileProviderItemIdentifier> identifiers) = 0;
    /// The changes up to `anchor` have been delivered; with `moreComing` the host asks on from
    /// there.
    virtual void finishEnumeratingChangesUpToSyncAnchor(QSFileProviderSyncAnchor anchor,
                                                        bool moreComing) = 0;
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

    /// Delivers what happened since the anchor, one page of it; does not wait for that. An anchor
    /// that might be wrong is answered with QSFileProviderErrorSyncAnchorExpired.
    virtual void enumerateChangesForObserver(std::shared_ptr<QSFileProviderChangeObserver> observer,
                                             const QSFileProviderSyncAnchor& fromSyncAnchor) = 0;

    /// The present position, none if it is not known. Asked for before a listing it misses nothing
    /// of what happens during the listing.
    using SyncAnchorHandler = std::function<void(std::optional<QSFileProviderSyncAnchor>)>;
    virtual void currentSyncAnchorWithCompletionHandler(SyncAnchorHandler completionHandler) = 0;

    /// Signals to the host what happens in the container after the first anchor, or the first
    /// changes, that are asked for. An extension hands out its enumerators started.
    virtual void start() = 0;
    /// Ends that, and every change enumeration that runs (with an expired anchor).
    virtual void stop() = 0;

    /// The host is done with the enumerator. May be called more than once.
    virtual void invalidate() = 0;
};

}  // namespace platform

#pragma once

#include <memory>
#include <vector>

#include "platform/fileprovider/QSFileProviderEnumerator.h"

namespace tidewell {

using namespace platform;

class FSChangesEnumerator;
class LocalFileEnumerator;

/// Stands between one running change enumeration and the host's observer: hands the calls on,
/// refreshes identity records, and takes the finished enumeration out of its enumerator. Owned by
/// the enumeration until its last call; all calls come on the enumeration's queue.
class LocalChangesObserverContext final : public QSFileProviderChangeObserver {
  public:
    LocalChangesObserverContext(std::shared_ptr<QSFileProviderChangeObserver> observer,
                                std::shared_ptr<LocalFileEnumerator> localFileEnumerator,
                                bool shouldUpdateFileIDInStrata);

    /// The way back to the enumeration that is served. Once, before it starts.
    void setFSChangesEnumerator(std::weak_ptr<FSChangesEnumerator> enumerator);

    void didUpdateItems(std::vector<ItemRef> items) override;
    void didDeleteItemsWithIdentifiers(
        std::vector<QSFileProviderItemIdentifier> identifiers) override;
    // Not handed on once the enumeration has ended.
    void finishEnumeratingChangesUpToSyncAnchor(QSFileProviderSyncAnchor anchor,
                                                bool moreComing) override;
    void finishEnumeratingWithError(QSError error) override;

  private:
    // Constant after construction.
    std::shared_ptr<QSFileProviderChangeObserver> observer_;
    std::shared_ptr<LocalFileEnumerator> localFileEnumerator_;
    bool shouldUpdateFileIDInStrata_;

    std::weak_ptr<FSChangesEnumerator> fsChangesEnumerator_;
};

}  // namespace tidewell

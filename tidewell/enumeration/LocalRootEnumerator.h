#pragma once

#include <memory>
#include <string>

#include "tidewell/enumeration/LocalFileEnumerator.h"

namespace tidewell {

/// Lists the root, the working set or all directories: first the app libraries, then what the inner
/// enumerator finds in the tree of documents.
class LocalRootEnumerator final : public QSFileProviderEnumerator {
  public:
    explicit LocalRootEnumerator(std::string container);

    void enumerateItemsForObserver(std::shared_ptr<QSFileProviderEnumerationObserver> observer,
                                   const QSFileProviderPage& startingAtPage) override;
    void enumerateChangesForObserver(std::shared_ptr<QSFileProviderChangeObserver> observer,
                                     const QSFileProviderSyncAnchor& fromSyncAnchor) override {
        localFileEnumerator_->enumerateChangesForObserver(std::move(observer), fromSyncAnchor);
    }
    void currentSyncAnchorWithCompletionHandler(SyncAnchorHandler completionHandler) override {
        localFileEnumerator_->currentSyncAnchorWithCompletionHandler(std::move(completionHandler));
    }
    void start() override { localFileEnumerator_->start(); }
    void stop() override { localFileEnumerator_->stop(); }
    void invalidate() override { localFileEnumerator_->invalidate(); }

    [[nodiscard]] const std::string& container() const { return container_; }

  private:
    // Constant after construction.
    std::string container_;
    std::shared_ptr<LocalFileEnumerator> localFileEnumerator_;
};

}  // namespace tidewell

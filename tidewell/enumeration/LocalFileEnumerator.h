#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/fileprovider/QSFileProviderEnumerator.h"
#include "tidewell/fs/DirectoryWalk.h"
#include "tidewell/fs/FSChangeToken.h"

namespace tidewell {

using namespace platform;

/// Lists one folder, the working set or all directories, in pages. A page token stays good while
/// the enumerator has the walk that the page ended and no folder of that walk changed.
class LocalFileEnumerator final : public QSFileProviderEnumerator {
  public:
    /// Entries in a page.
    static constexpr std::uint64_t pageSize = 200;

    /// REQUIRES: `urls` is not empty; the first is the folder that a single-folder listing shows.
    LocalFileEnumerator(std::string container, std::vector<QSURL> urls);

    void enumerateItemsForObserver(std::shared_ptr<QSFileProviderEnumerationObserver> observer,
                                   const QSFileProviderPage& startingAtPage) override;
    void enumerateChangesForObserver(std::shared_ptr<QSFileProviderChangeObserver> observer,
                                     const QSFileProviderSyncAnchor& fromSyncAnchor) override;
    void currentSyncAnchorWithCompletionHandler(SyncAnchorHandler completionHandler) override;
    void start() override {}
    void stop() override { invalidate(); }
    /// Lets go of the walks that pages could resume.
    void invalidate() override;

    [[nodiscard]] const std::string& container() const { return container_; }
    [[nodiscard]] const QSURL& enumeratedItemURL() const { return urls_.front(); }
    [[nodiscard]] const std::vector<QSURL>& urls() const { return urls_; }

  private:
    /// A walk that stands at a page's end.
    struct Cursor {
        FSChangeToken token;
        std::unique_ptr<DirectoryWalk> walk;
    };

    Result<std::optional<QSFileProviderPage>> gather(QSFileProviderEnumerationObserver& observer,
                                                     const std::optional<FSChangeToken>& token);
    [[nodiscard]] Result<std::unique_ptr<DirectoryWalk>> resumedWalk(const FSChangeToken& token,
                                                                     const QSUUID& volume);
    [[nodiscard]] std::unique_ptr<DirectoryWalk> newWalk() const;
    [[nodiscard]] Result<std::vector<ItemRef>> nextItems(DirectoryWalk& walk,
                                                         std::uint64_t offset) const;
    [[nodiscard]] bool showsFoldersOnly() const;

    // Constant after construction.
    std::string container_;
    std::vector<QSURL> urls_;

    std::mutex mutex_;
    std::vector<Cursor> cursors_;  // guarded by mutex_; the latest last
};

/// Whether the page is one of the two that start a listing. They are alike: nothing is sorted.
[[nodiscard]] bool isInitialPage(const QSFileProviderPage& page);

}  // namespace tidewell

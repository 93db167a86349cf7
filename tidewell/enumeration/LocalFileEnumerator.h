#pragma once

#include <cstdint>
#include <limits>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "platform/dispatch/Queue.h"
#include "platform/fileprovider/QSFileProviderEnumerator.h"
#include "tidewell/fs/ContainerCover.h"
#include "tidewell/fs/DirectoryWalk.h"
#include "tidewell/fs/FSChangeToken.h"
#include "tidewell/fs/FSChangesEnumerator.h"
#include "tidewell/fs/FSChangesNotifier.h"

namespace tidewell {

using namespace platform;

/// Lists one folder, the working set or all directories, in pages, and reports what changes there.
/// A page token stays good while nothing happens in the folders.
class LocalFileEnumerator final : public QSFileProviderEnumerator,
                                  public std::enable_shared_from_this<LocalFileEnumerator> {
  public:
    /// Entries in a page.
    static constexpr std::uint64_t pageSize = 200;
    static constexpr std::uint64_t noLimit = std::numeric_limits<std::uint64_t>::max();

    /// REQUIRES: `urls` is not empty; the first is the folder that a single-folder listing shows.
    LocalFileEnumerator(std::string container, std::vector<QSURL> urls);
    ~LocalFileEnumerator() override;

    void enumerateItemsForObserver(std::shared_ptr<QSFileProviderEnumerationObserver> observer,
                                   const QSFileProviderPage& startingAtPage) override {
        enumerateItems(observer, startingAtPage, noLimit);
    }
    /// REQUIRES: the enumerator is owned by a shared_ptr.
    void enumerateChangesForObserver(std::shared_ptr<QSFileProviderChangeObserver> observer,
                                     const QSFileProviderSyncAnchor& fromSyncAnchor) override {
        enumerateChanges(std::move(observer), fromSyncAnchor, noLimit);
    }
    /// The same, where the container's roots were looked up at some event: a listing that begins
    /// counts as begun there (at the latest), and changes after it are left for the next time.
    void enumerateItems(const std::shared_ptr<QSFileProviderEnumerationObserver>& observer,
                        const QSFileProviderPage& startingAtPage, std::uint64_t sinceEventID);
    void enumerateChanges(std::shared_ptr<QSFileProviderChangeObserver> observer,
                          const QSFileProviderSyncAnchor& fromSyncAnchor,
                          std::uint64_t upToEventID);
    void currentSyncAnchorWithCompletionHandler(SyncAnchorHandler completionHandler) override;
    /// Opens nothing: a listing that is all that is asked for needs no events.
    void start() override;
    void stop() override;
    void invalidate() override { stop(); }

    /// Begins to signal, where started. The first anchor and the first changes do that.
    void observe();
    [[nodiscard]] bool isObserving() const;

    /// Forgets a change enumeration that has ended.
    void removeEnumerator(const std::shared_ptr<FSChangesEnumerator>& enumerator);

    [[nodiscard]] const std::string& container() const { return cover_.container(); }
    [[nodiscard]] const QSURL& enumeratedItemURL() const { return urls().front(); }
    [[nodiscard]] const std::vector<QSURL>& urls() const { return cover_.urls(); }

  private:
    /// A walk that stands at a page's end.
    struct Cursor {
        FSChangeToken token;
        std::unique_ptr<DirectoryWalk> walk;
    };

    /// One page: where it ends, what it was read by, and its items.
    struct Gathered {
        FSChangeToken reached = {};
        std::unique_ptr<DirectoryWalk> walk = {};
        std::vector<ItemRef> items = {};
    };

    Result<std::optional<QSFileProviderPage>> gather(QSFileProviderEnumerationObserver& observer,
                                                     const std::optional<FSChangeToken>& token,
                                                     std::uint64_t sinceEventID);
    [[nodiscard]] Result<Gathered> firstPage(std::uint64_t sinceEventID) const;
    [[nodiscard]] Result<Gathered> pageFrom(const FSChangeToken& token);
    [[nodiscard]] Result<bool> hasMoved(const Result<std::uint64_t>& lookedSince) const;
    [[nodiscard]] Result<QSUUID> requireVolume() const;
    Result<void> requireSameVolume(const FSChangeToken& token, const QSUUID& volume) const;
    Result<void> requireUnchanged(const FSChangeToken& token) const;
    /// The walk that ended the page of that token, where it was kept, or a new one.
    [[nodiscard]] std::unique_ptr<DirectoryWalk> walkFor(const FSChangeToken& token);
    [[nodiscard]] std::unique_ptr<DirectoryWalk> newWalk() const;
    [[nodiscard]] Result<void> addItems(Gathered& page, std::uint64_t offset) const;

    // Constant after construction.
    ContainerCover cover_;
    std::shared_ptr<FSChangesNotifier> notifier_;  ///< null: no live updates
    bool shouldUpdateFileIDInStrata_;
    /// "tidewell.file-enumerator"; its blocks wait for nothing.
    SerialQueue queue_;

    /// On queue_. Those that ended with an error stay, empty, until the enumerator stops.
    std::set<std::shared_ptr<FSChangesEnumerator>> enumerators_;

    mutable std::mutex observationMutex_;
    bool isStarted_ = false;    // guarded by observationMutex_, as the next
    bool isObserving_ = false;  ///< the notifier runs, if there is one

    std::mutex mutex_;
    std::vector<Cursor> cursors_;  // guarded by mutex_; the latest last
};

/// Whether the page is one of the two that start a listing. They are alike: nothing is sorted.
[[nodiscard]] bool isInitialPage(const QSFileProviderPage& page);

}  // namespace tidewell

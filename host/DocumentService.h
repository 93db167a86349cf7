#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/ExtensionSession.h"
#include "host/Following.h"
#include "host/Health.h"
#include "host/Listing.h"
#include "host/Mutations.h"
#include "host/Page.h"
#include "host/TrashKeeper.h"

namespace platform {
class QSFileProviderManager;
}

namespace host {

/// The document service: what file browsers ask. All that goes in and out is a plain value, and
/// identifiers and tokens are opaque.
///
/// Any thread, several calls at once; every call blocks until it has its answer. Handlers run on
/// the calling thread, under no lock, and may call the service.
class DocumentService {
  public:
    struct Options {
        /// Pauses between tries of a listing; sleeps where empty.
        Waiter wait = {};
        /// How long a page, of a listing or of changes, or an anchor may take.
        std::chrono::milliseconds pageDeadline = std::chrono::seconds(30);
        /// How long an operation that changes documents may go without getting any further.
        std::chrono::milliseconds stallDeadline = std::chrono::minutes(10);
        /// What was trashed longer ago than this, by the wall clock and by the time that has
        /// passed, is deleted at the start and once a day; nothing where it is none.
        std::optional<std::chrono::seconds> trashAge = {};
        /// The installed platform's where empty or null.
        std::optional<NativePaths> paths = {};
        std::optional<VolumeAccess> volume = {};
        platform::QSFileProviderManager* manager = nullptr;
    };

    explicit DocumentService(const ExtensionFactory& makeExtension);
    DocumentService(const ExtensionFactory& makeExtension, Options options);
    ~DocumentService();

    /// Of an item with several names, as it is under the target's entry.
    [[nodiscard]] platform::Result<ItemRecord> item(const ItemTarget& target) const;

    /// The identifier of what is at an absolute native path; a final symbolic link is an item of
    /// its own. The error satisfies meansNoSuchItem where there is no item at it.
    [[nodiscard]] platform::Result<std::string> resolve(std::string_view path) const;

    /// The same, with the entry that the path names; none for the root of the storage or a library.
    [[nodiscard]] platform::Result<ItemTarget> resolveEntry(std::string_view path) const;

    /// The native path of an item, as it is now.
    [[nodiscard]] platform::Result<std::string> path(const std::string& identifier) const;

    // What the user keeps with an item; none clears it. They answer with the item as it is then.
    /// A date that cannot be kept is no error: the answer does not have it. An application's
    /// library has none (QPErrorDomain, invalid parameter).
    [[nodiscard]] platform::Result<ItemRecord> setLastUsedDate(
        const ItemTarget& target, const std::optional<platform::QSDate>& date) const;
    /// In that order. E2BIG where they are too many or too long. REQUIRES: the labels are UTF-8.
    [[nodiscard]] platform::Result<ItemRecord> setTags(
        const ItemTarget& target, const std::vector<std::string>& labels) const;
    [[nodiscard]] platform::Result<ItemRecord> setFavoriteRank(
        const ItemTarget& target, std::optional<std::uint64_t> rank) const;

    /// A picture that stands for an item.
    struct Thumbnail {
        std::string itemIdentifier;
        std::optional<platform::QSData> picture;  ///< the bytes of a file; none: it has no such
        std::optional<std::string> type;          ///< of that file
    };
    /// One for each identifier, in that order. An item without a thumbnail is no error, nor is
    /// an identifier without an item. ETIMEDOUT where an extension takes more than ten seconds for
    /// each.
    [[nodiscard]] platform::Result<std::vector<Thumbnail>> thumbnails(
        const std::vector<std::string>& identifiers) const;

    /// Receives a document's bytes in pieces; false ends it.
    using ContentHandler = std::function<bool(platform::QSDataView)>;
    /// The content of a file, as it is while it is read. EISDIR for folders and packages, ELOOP for
    /// symbolic links, EINVAL for special files.
    [[nodiscard]] platform::Result<void> readContent(const ItemTarget& target,
                                                     const ContentHandler& handler) const;

    /// One page as the extension gives it; a refused token is the caller's to deal with.
    [[nodiscard]] Page onePage(const std::string& container, const PageStart& start);

    /// Every item of the container, page after page, memory for one page and the identifiers given
    /// out. Restarts a refused listing by itself (see Listing). Success also where the handler
    /// ended it.
    [[nodiscard]] platform::Result<void> list(const std::string& container, Order order,
                                              const ItemHandler& handler);

    /// Receives what listTree finds. Both are called depth first, a folder before what it holds.
    struct TreeHandler {
        /// `depth` is 0 for the children of the container; `isLast` among those of its folder.
        /// False ends the listing.
        std::function<bool(const ItemRecord& item, std::size_t depth, bool isLast)> item;
        /// A folder below the container that could not be listed; the rest goes on.
        std::function<void(const ItemRecord& folder, const platform::QSError& error)> failed;
        /// Puts the entries of one folder in order; empty: they stay in the order of pages.
        std::function<void(std::vector<ItemRecord>& entries)> sort = {};
    };

    /// Everything below a folder, into folders but not into packages or links. Memory for the
    /// entries of the folders on the way down. Fails where the container itself cannot be listed.
    [[nodiscard]] platform::Result<void> listTree(const std::string& container,
                                                  const TreeHandler& handler);

    /// The present position in what happens to a container. Taken before a listing, nothing that
    /// happens during the listing is missed.
    [[nodiscard]] platform::Result<Anchor> anchor(const std::string& container) const;

    /// What happened to the container after the anchor, one page of it. The error satisfies
    /// meansExpired where the anchor is no longer good: take a new one and list again.
    [[nodiscard]] platform::Result<ChangePage> onePageOfChanges(const std::string& container,
                                                                const Anchor& since) const;

    /// Receives each page of changes; false ends them.
    using ChangeHandler = std::function<bool(const ChangePage&)>;

    /// Page after page, until nothing more is coming or the handler ends it. Returns the anchor of
    /// the last page. After an error, go on from the last page that the handler was given.
    [[nodiscard]] platform::Result<Anchor> changes(const std::string& container,
                                                   const Anchor& since,
                                                   const ChangeHandler& handler) const;

    /// The same for one who follows the container.
    [[nodiscard]] platform::Result<Anchor> changes(const Following& following, const Anchor& since,
                                                   const ChangeHandler& handler) const;

    /// Follows a container: the handle can wait for its signals. Take the anchor, or the changes
    /// since one, after this call, and nothing falls in between. The handle must not outlive the
    /// service.
    [[nodiscard]] platform::Result<std::unique_ptr<Following>> follow(const std::string& container);

    /// Blocks until everything that happened before the call shows in changes, short-lived
    /// uncertainty about what was replaced or deleted included.
    [[nodiscard]] platform::Result<void> waitUntilSettled() const {
        return volume_.waitUntilSettled();
    }

    /// What changes documents. Lives as long as the service.
    [[nodiscard]] const Mutations& mutations() const { return mutations_; }

    [[nodiscard]] Health health() const { return volume_.health(); }
    [[nodiscard]] AgeLimit limitForAge(std::chrono::seconds age) const {
        return volume_.limitForAge(age);
    }

  private:
    [[nodiscard]] platform::Result<bool> listLevel(const std::string& container, std::size_t depth,
                                                   const TreeHandler& handler);
    [[nodiscard]] platform::Result<std::shared_ptr<void>> watchEverywhere();
    [[nodiscard]] platform::Result<ItemRecord> itemAfter(
        const ItemTarget& target, const ExtensionSession::ItemRequest& request) const;

    // Constant after construction; session and signals have their own synchronisation.
    Waiter wait_;
    platform::QSFileProviderManager& manager_;
    VolumeAccess volume_;
    std::shared_ptr<SignalBoard> signals_;
    std::unique_ptr<ExtensionSession> session_;
    Mutations mutations_;
    std::unique_ptr<TrashKeeper> trashKeeper_;  // null where the trash is kept for ever

    std::mutex mutex_;
    std::weak_ptr<void> everywhere_;  // guarded; the watch that all who follow something share
};

}  // namespace host

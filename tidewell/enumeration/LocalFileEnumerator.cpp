#include "tidewell/enumeration/LocalFileEnumerator.h"

#include <algorithm>
#include <map>

#include "platform/fileprovider/QSFileProviderError.h"
#include "platform/fileprovider/URLOperations.h"
#include "platform/foundation/fatalError.h"
#include "tidewell/common/LocalFileProviderError.h"
#include "tidewell/common/Logging.h"
#include "tidewell/fs/VolumeIdentity.h"
#include "tidewell/identity/QSURL+TWPFileObjectIdentifier.h"
#include "tidewell/items/LocalItem.h"

namespace tidewell {

namespace {

constexpr std::string_view trashName = ".Trash";
constexpr WalkOptions recursiveOptions = walkSkipsHiddenEntries | walkSkipsPackageDescendants;
constexpr WalkOptions singleFolderOptions = walkSkipsHiddenEntries | walkDescendsIntoNothing;

/// How many walks wait for their next page at the most; each holds open folders.
constexpr std::size_t keptCursors = 4;

WalkOptions optionsFor(std::string_view name, WalkOptions inherited) {
    return name == trashName ? singleFolderOptions : inherited;
}

std::string pathsText(const std::vector<QSURL>& urls) {
    std::string text;
    for (const auto& url : urls) text += (text.empty() ? "" : ", ") + url.path();
    return "[" + text + "]";
}

/// Items for entries of a walk. The parent's identifier is looked up once for each folder.
class ItemFactory {
  public:
    [[nodiscard]] std::shared_ptr<LocalItem> makeItem(const QSURL& url) {
        const auto slash = url.path().rfind('/');
        const std::string_view folder(url.path().data(), slash);
        auto known = parents_.find(folder);
        if (known == parents_.end()) {
            known = parents_.emplace(folder, itemIdentifier(url.URLByDeletingLastPathComponent()))
                        .first;
        }
        return LocalItem::initWithURL(url, {.parentItemID = known->second});
    }

  private:
    std::map<std::string, std::optional<std::string>, std::less<>> parents_;
};

}  // namespace

bool isInitialPage(const QSFileProviderPage& page) {
    const auto text = stringFromData(page);
    return text == QSFileProviderInitialPageSortedByName ||
           text == QSFileProviderInitialPageSortedByDate;
}

LocalFileEnumerator::LocalFileEnumerator(std::string container, std::vector<QSURL> urls)
    : container_(std::move(container)), urls_(std::move(urls)) {
    if (urls_.empty()) fatalError("can't create enumerator for an empty list of URLs");
}

void LocalFileEnumerator::invalidate() {
    std::vector<Cursor> dropped;
    const std::scoped_lock lock(mutex_);
    dropped.swap(cursors_);
}

void LocalFileEnumerator::enumerateChangesForObserver(
    std::shared_ptr<QSFileProviderChangeObserver> observer,
    const QSFileProviderSyncAnchor& /*fromSyncAnchor*/) {
    observer->finishEnumeratingWithError(syncAnchorExpiredError());
}

void LocalFileEnumerator::currentSyncAnchorWithCompletionHandler(
    SyncAnchorHandler completionHandler) {
    completionHandler(std::nullopt);
}

void LocalFileEnumerator::enumerateItemsForObserver(
    std::shared_ptr<QSFileProviderEnumerationObserver> observer,
    const QSFileProviderPage& startingAtPage) {
    std::optional<FSChangeToken> token;
    if (!isInitialPage(startingAtPage)) {
        token = FSChangeToken::fromData(startingAtPage);
        if (!token) {
            logError("can't create change token from anchor data, resetting");
            observer->finishEnumeratingWithError(syncAnchorExpiredError());
            return;
        }
    }
    const LogSection section([&] {
        return "enumerate items for " + container_ + " with page " +
               (token ? token->description() : std::string(stringFromData(startingAtPage)));
    });
    auto nextPage = gather(*observer, token);
    if (nextPage) {
        observer->finishEnumeratingUpToPage(std::move(*nextPage));
    } else {
        observer->finishEnumeratingWithError(nextPage.error());
    }
}

Result<std::optional<QSFileProviderPage>> LocalFileEnumerator::gather(
    QSFileProviderEnumerationObserver& observer, const std::optional<FSChangeToken>& token) {
    const auto volume = volumeUUID(urls_.front());
    if (!volume) {
        logError([&] { return "can't get volume UUID for " + urls_.front().path(); });
        return std::unexpected(makeError(LocalFileProviderError::volumeIdentityUnknown));
    }
    FSChangeToken reached{.deviceUUID = *volume};
    std::unique_ptr<DirectoryWalk> walk;
    if (token) {
        auto resumed = resumedWalk(*token, *volume);
        if (!resumed) return std::unexpected(resumed.error());
        walk = std::move(*resumed);
        reached.streamEventID = token->streamEventID;
    } else {
        logDebug("start gather phase");
        reached.streamEventID = currentFSEventID();
        walk = newWalk();
    }

    const std::uint64_t initialOffset = token ? token->offset : 0;
    auto items = nextItems(*walk, initialOffset);
    if (!items) return std::unexpected(items.error());
    logDebug(
        [&] { return "discovered " + std::to_string(items->size()) + " items for " + container_; });
    observer.didEnumerateItems(std::move(*items));

    reached.offset = walk->count();
    if (reached.offset < initialOffset) {
        logInfo([&] {
            return "enumerator returned an offset (" + std::to_string(reached.offset) +
                   ") smaller than the initial offset " + std::to_string(initialOffset);
        });
        return std::unexpected(syncAnchorExpiredError());
    }
    if (reached.offset - initialOffset != pageSize) {
        logDebug([&] { return "gather phase finished for " + pathsText(urls_); });
        return std::nullopt;
    }
    walk->watchVisitedFolders();
    {
        const std::scoped_lock lock(mutex_);
        if (cursors_.size() == keptCursors) cursors_.erase(cursors_.begin());
        cursors_.push_back({reached, std::move(walk)});
    }
    return reached.data();
}

Result<std::unique_ptr<DirectoryWalk>> LocalFileEnumerator::resumedWalk(const FSChangeToken& token,
                                                                        const QSUUID& volume) {
    if (token.deviceUUID != volume) {
        logInfo([&] {
            return "device UUID changed (" + token.deviceUUID.UUIDString() + " -> " +
                   volume.UUIDString() + ")";
        });
        return std::unexpected(syncAnchorExpiredError());
    }
    logDebug([&] { return "resume gather phase at offset " + std::to_string(token.offset); });
    std::unique_ptr<DirectoryWalk> walk;
    {
        const std::scoped_lock lock(mutex_);
        const auto found = std::find_if(cursors_.rbegin(), cursors_.rend(),
                                        [&](const Cursor& kept) { return kept.token == token; });
        if (found != cursors_.rend()) {
            walk = std::move(found->walk);
            cursors_.erase(std::next(found).base());
        }
    }
    if (!walk || !walk->visitedFoldersAreUnchanged()) {
        logInfo("can't replay historical FSEvents, need to re-start gather phase from scratch");
        return std::unexpected(syncAnchorExpiredError());
    }
    logDebug([&] {
        return "safe to resume gather phase from FSEventID " + std::to_string(token.streamEventID);
    });
    return walk;
}

bool LocalFileEnumerator::showsFoldersOnly() const {
    return container_ == QSFileProviderAllDirectoriesContainerItemIdentifier;
}

std::unique_ptr<DirectoryWalk> LocalFileEnumerator::newWalk() const {
    const bool isWorkingSet = container_ == QSFileProviderWorkingSetContainerItemIdentifier;
    std::vector<DirectoryWalk::Root> roots;
    const auto add = [&](const QSURL& url, WalkOptions options) {
        roots.push_back({url, optionsFor(url.lastPathComponent(), options)});
    };
    if (isWorkingSet || showsFoldersOnly()) {
        for (const auto& url : urls_) {
            add(url, recursiveOptions);
            if (isWorkingSet) {
                add(url.URLByAppendingPathComponent(trashName), singleFolderOptions);
            }
        }
    } else {
        add(enumeratedItemURL(), singleFolderOptions);
    }
    return std::make_unique<DirectoryWalk>(
        std::move(roots), optionsFor,
        showsFoldersOnly() ? DirectoryWalk::Emits::directories : DirectoryWalk::Emits::everything);
}

Result<std::vector<ItemRef>> LocalFileEnumerator::nextItems(DirectoryWalk& walk,
                                                            std::uint64_t offset) const {
    std::vector<QSURL> urls;
    urls.reserve(pageSize);
    const auto walked = walk.walk(offset, pageSize, [&](const QSURL& url) -> Result<void> {
        urls.push_back(url);
        return {};
    });
    if (!walked) return std::unexpected(walked.error());
    // All of a page's identifiers in one durable step; what fails here fails again, and is logged,
    // with the item that it concerns.
    const auto identified = prefetchIdentifiers(urls);
    if (!identified) {
        logError([&] { return "can't prefetch identifiers; " + identified.error().description(); });
    }
    ItemFactory factory;
    std::vector<ItemRef> items;
    items.reserve(urls.size());
    for (const auto& url : urls) {
        auto item = factory.makeItem(url);
        if (item && (!showsFoldersOnly() || item->isFolder())) items.push_back(std::move(item));
    }
    return items;
}

}  // namespace tidewell

#include "tidewell/enumeration/LocalFileEnumerator.h"

#include <algorithm>

#include "platform/fileprovider/QSFileProviderError.h"
#include "platform/fileprovider/URLOperations.h"
#include "platform/foundation/fatalError.h"
#include "tidewell/common/LocalFileProviderError.h"
#include "tidewell/common/Logging.h"
#include "tidewell/enumeration/LocalChangesObserverContext.h"
#include "tidewell/fs/ItemFactory.h"
#include "tidewell/fs/VolumeIdentity.h"

namespace tidewell {

namespace {

/// How many walks wait for their next page at the most; each holds open folders.
constexpr std::size_t keptCursors = 4;

std::string pathsText(const std::vector<QSURL>& urls) {
    std::string text;
    for (const auto& url : urls) text += (text.empty() ? "" : ", ") + url.path();
    return "[" + text + "]";
}

std::vector<QSURL> requireURLs(std::vector<QSURL> urls) {
    if (urls.empty()) fatalError("can't create enumerator for an empty list of URLs");
    return urls;
}

}  // namespace

bool isInitialPage(const QSFileProviderPage& page) {
    const auto text = stringFromData(page);
    return text == QSFileProviderInitialPageSortedByName ||
           text == QSFileProviderInitialPageSortedByDate;
}

LocalFileEnumerator::LocalFileEnumerator(std::string container, std::vector<QSURL> urls)
    : cover_(std::move(container), requireURLs(std::move(urls))),
      shouldUpdateFileIDInStrata_(cover_.container() ==
                                  QSFileProviderWorkingSetContainerItemIdentifier),
      queue_("tidewell.file-enumerator") {
    if (shouldUpdateFileIDInStrata_) return;
    notifier_ = FSChangesNotifier::make(cover_.container(), cover_.urls());
    if (notifier_) return;
    logError([&] {
        return "can't create notifier for " + quoted(enumeratedItemURL().path()) +
               "; enumeration will have no live update";
    });
}

LocalFileEnumerator::~LocalFileEnumerator() {
    if (notifier_) notifier_->stop();
}

void LocalFileEnumerator::start() {
    if (notifier_) notifier_->start();
}

void LocalFileEnumerator::stop() {
    if (notifier_) notifier_->stop();
    std::set<std::shared_ptr<FSChangesEnumerator>> running;
    queue_.sync([&] { running.swap(enumerators_); });
    for (const auto& enumerator : running) enumerator->stop();
    std::vector<Cursor> dropped;
    const std::scoped_lock lock(mutex_);
    dropped.swap(cursors_);
}

void LocalFileEnumerator::removeEnumerator(const std::shared_ptr<FSChangesEnumerator>& enumerator) {
    queue_.sync([&] { enumerators_.erase(enumerator); });
}

void LocalFileEnumerator::enumerateChanges(std::shared_ptr<QSFileProviderChangeObserver> observer,
                                           const QSFileProviderSyncAnchor& fromSyncAnchor,
                                           std::uint64_t upToEventID) {
    const auto token = FSChangeToken::fromData(fromSyncAnchor);
    if (!token) {
        logError("can't create change token from anchor data, resetting");
        observer->finishEnumeratingWithError(syncAnchorExpiredError());
        return;
    }
    const LogSection section([&] {
        return "enumerate changes for " + container() + " with token " + token->description();
    });
    const auto volume = requireVolume();
    const auto usable =
        volume ? requireSameVolume(*token, *volume) : Result<void>(std::unexpected(volume.error()));
    if (!usable) {
        observer->finishEnumeratingWithError(usable.error());
        return;
    }
    const auto context = std::make_shared<LocalChangesObserverContext>(
        std::move(observer), shared_from_this(), shouldUpdateFileIDInStrata_);
    const auto enumerator =
        std::make_shared<FSChangesEnumerator>(*token, container(), urls(), context, upToEventID);
    context->setFSChangesEnumerator(enumerator);
    queue_.sync([&] { enumerators_.insert(enumerator); });
    enumerator->start();
}

void LocalFileEnumerator::currentSyncAnchorWithCompletionHandler(
    SyncAnchorHandler completionHandler) {
    const auto volume = volumeUUID(enumeratedItemURL());
    if (!volume) {
        logError([&] { return "can't get volume UUID for " + quoted(enumeratedItemURL().path()); });
        return completionHandler(std::nullopt);
    }
    const FSChangeToken token{.deviceUUID = *volume, .streamEventID = currentFSEventID()};
    completionHandler(token.data());
}

void LocalFileEnumerator::enumerateItems(
    const std::shared_ptr<QSFileProviderEnumerationObserver>& observer,
    const QSFileProviderPage& startingAtPage, std::uint64_t sinceEventID) {
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
        return "enumerate items for " + container() + " with page " +
               (token ? token->description() : std::string(stringFromData(startingAtPage)));
    });
    auto nextPage = gather(*observer, token, sinceEventID);
    if (nextPage) {
        observer->finishEnumeratingUpToPage(std::move(*nextPage));
    } else {
        observer->finishEnumeratingWithError(nextPage.error());
    }
}

Result<QSUUID> LocalFileEnumerator::requireVolume() const {
    const auto volume = volumeUUID(enumeratedItemURL());
    if (volume) return *volume;
    logError([&] { return "can't get volume UUID for " + enumeratedItemURL().path(); });
    return std::unexpected(makeError(LocalFileProviderError::volumeIdentityUnknown));
}

Result<void> LocalFileEnumerator::requireSameVolume(const FSChangeToken& token,
                                                    const QSUUID& volume) const {
    if (token.deviceUUID == volume) return {};
    logInfo([&] {
        return "device UUID changed (" + token.deviceUUID.UUIDString() + " -> " +
               volume.UUIDString() + ")";
    });
    return std::unexpected(syncAnchorExpiredError());
}

Result<void> LocalFileEnumerator::requireUnchanged(const FSChangeToken& token) const {
    using Status = FSEventReaderGatherPhaseResumeStatus;
    switch (FSEventReader::canResumeGatherPhase(urls(), token.streamEventID).first) {
        case Status::canResume:
            logDebug([&] {
                return "safe to resume gather phase from FSEventID " +
                       std::to_string(token.streamEventID);
            });
            return {};
        case Status::deletionOccurred:
            logInfo([&] {
                return "deletion of " + enumeratedItemURL().path() +
                       " requires to re-gather from scratch";
            });
            break;
        case Status::cantReplayHistoricalFSEvents:
            logInfo("can't replay historical FSEvents, need to re-start gather phase from scratch");
            break;
    }
    return std::unexpected(syncAnchorExpiredError());
}

Result<std::optional<QSFileProviderPage>> LocalFileEnumerator::gather(
    QSFileProviderEnumerationObserver& observer, const std::optional<FSChangeToken>& token,
    std::uint64_t sinceEventID) {
    const auto volume = requireVolume();
    if (!volume) return std::unexpected(volume.error());
    FSChangeToken reached{.deviceUUID = *volume};
    std::unique_ptr<DirectoryWalk> walk;
    auto lookedSince = currentFSEventIDAfterCatchingUp();
    if (token) {
        if (auto same = requireSameVolume(*token, *volume); !same) {
            return std::unexpected(same.error());
        }
        logDebug([&] { return "resume gather phase at offset " + std::to_string(token->offset); });
        if (auto unchanged = requireUnchanged(*token); !unchanged) {
            return std::unexpected(unchanged.error());
        }
        walk = walkFor(*token);
        reached.streamEventID = token->streamEventID;
    } else {
        logDebug("start gather phase");
        reached.streamEventID = std::min(lookedSince, sinceEventID);
        walk = newWalk();
    }

    const std::uint64_t initialOffset = token ? token->offset : 0;
    auto items = nextItems(*walk, initialOffset);
    // Where a folder went elsewhere in between, items may have been looked for at its old place.
    constexpr int mostBeginnings = 8;
    for (int i = 0; items && i < mostBeginnings && foldersHaveMovedSince(lookedSince); ++i) {
        logDebug("folders have moved meanwhile, looking again");
        if (token) return std::unexpected(syncAnchorExpiredError());
        lookedSince = currentFSEventIDAfterCatchingUp();
        reached.streamEventID = std::min(lookedSince, sinceEventID);
        walk = newWalk();
        items = nextItems(*walk, initialOffset);
    }
    if (!items) return std::unexpected(items.error());
    logDebug([&] {
        return "discovered " + std::to_string(items->size()) + " items for " + container();
    });
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
        logDebug([&] { return "gather phase finished for " + pathsText(urls()); });
        return std::nullopt;
    }
    {
        const std::scoped_lock lock(mutex_);
        if (cursors_.size() == keptCursors) cursors_.erase(cursors_.begin());
        cursors_.push_back({reached, std::move(walk)});
    }
    return reached.data();
}

std::unique_ptr<DirectoryWalk> LocalFileEnumerator::walkFor(const FSChangeToken& token) {
    {
        const std::scoped_lock lock(mutex_);
        const auto found = std::find_if(cursors_.rbegin(), cursors_.rend(),
                                        [&](const Cursor& kept) { return kept.token == token; });
        if (found != cursors_.rend()) {
            auto walk = std::move(found->walk);
            cursors_.erase(std::next(found).base());
            return walk;
        }
    }
    return newWalk();
}

std::unique_ptr<DirectoryWalk> LocalFileEnumerator::newWalk() const {
    return std::make_unique<DirectoryWalk>(cover_.makeWalk(cover_.walkRoots()));
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
        if (item && (!cover_.showsFoldersOnly() || item->isFolder()))
            items.push_back(std::move(item));
    }
    return items;
}

}  // namespace tidewell

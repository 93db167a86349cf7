#include "tidewell/enumeration/LocalFileEnumerator.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/fileprovider/Platform.h"
#include "platform/fileprovider/QSFileProviderError.h"
#include "platform/fileprovider/URLOperations.h"
#include "platform/files/LookFailure.h"
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
    const std::scoped_lock lock(observationMutex_);
    isStarted_ = true;
}

void LocalFileEnumerator::observe() {
    const std::scoped_lock lock(observationMutex_);
    if (!isStarted_ || std::exchange(isObserving_, true)) return;
    if (notifier_) notifier_->start();
}

bool LocalFileEnumerator::isObserving() const {
    const std::scoped_lock lock(observationMutex_);
    return isObserving_;
}

void LocalFileEnumerator::stop() {
    {
        const std::scoped_lock lock(observationMutex_);
        isStarted_ = false;
        if (std::exchange(isObserving_, false) && notifier_) notifier_->stop();
    }
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
    observe();
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
    observe();
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

/// One that is not at its URL any more is for the host to look up again, also where it is back by
/// the time of the second look.
Result<QSUUID> LocalFileEnumerator::requireVolume() const {
    constexpr int mostLooks = 4;
    for (int i = 0; i < mostLooks; ++i) {
        const auto volume = volumeUUID(enumeratedItemURL());
        if (volume) return *volume;
        logError([&] { return "can't get volume UUID for " + enumeratedItemURL().path(); });
        const auto isInPlace = cover_.isInPlace();
        if (isInPlace && !*isInPlace) return std::unexpected(syncAnchorExpiredError());
    }
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
    // The check below waits until the past is known, which it never is while the store cannot be
    // written.
    if (auto known = waitUntilHistoryIsKnown(); !known) return known;
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
    if (token) {
        if (auto same = requireSameVolume(*token, *volume); !same) {
            return std::unexpected(same.error());
        }
    }
    auto page = token ? pageFrom(*token) : firstPage(sinceEventID);
    if (!page) return std::unexpected(std::move(page.error()));
    logDebug([&] {
        return "discovered " + std::to_string(page->items.size()) + " items for " + container();
    });
    observer.didEnumerateItems(std::move(page->items));

    auto& reached = page->reached;
    reached.deviceUUID = *volume;
    reached.offset = page->walk->count();
    const std::uint64_t initialOffset = token ? token->offset : 0;
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
    const std::scoped_lock lock(mutex_);
    if (cursors_.size() == keptCursors) cursors_.erase(cursors_.begin());
    cursors_.push_back({reached, std::move(page->walk)});
    return reached.data();
}

Result<LocalFileEnumerator::Gathered> LocalFileEnumerator::firstPage(
    std::uint64_t sinceEventID) const {
    constexpr int mostBeginnings = 8;
    for (int i = 0; i < mostBeginnings; ++i) {
        logDebug(i == 0 ? "start gather phase" : "folders have moved meanwhile, looking again");
        const auto lookedSince = currentFSEventIDAfterCatchingUp();
        Gathered page{.walk = newWalk()};
        // What cannot be recorded now is recorded later, hence behind the page.
        page.reached.streamEventID =
            std::min(lookedSince.value_or(currentFSEventID()), sinceEventID);
        if (auto added = addItems(page, 0); !added) return std::unexpected(added.error());
        const auto moved = hasMoved(lookedSince);
        if (!moved) return std::unexpected(moved.error());
        if (!*moved) return page;
    }
    return std::unexpected(syncAnchorExpiredError());
}

Result<LocalFileEnumerator::Gathered> LocalFileEnumerator::pageFrom(const FSChangeToken& token) {
    logDebug([&] { return "resume gather phase at offset " + std::to_string(token.offset); });
    const auto lookedSince = currentFSEventIDAfterCatchingUp();
    if (!lookedSince) return std::unexpected(lookedSince.error());
    if (auto unchanged = requireUnchanged(token); !unchanged) {
        return std::unexpected(unchanged.error());
    }
    Gathered page{.reached = token, .walk = walkFor(token)};
    if (auto added = addItems(page, token.offset); !added) return std::unexpected(added.error());
    const auto moved = hasMoved(lookedSince);
    if (!moved) return std::unexpected(moved.error());
    if (*moved) return std::unexpected(syncAnchorExpiredError());
    return page;
}

/// Whether a folder went elsewhere while the page was read, so that items may have been looked for
/// at its former place.
Result<bool> LocalFileEnumerator::hasMoved(const Result<std::uint64_t>& lookedSince) const {
    const auto isInPlace = cover_.isInPlace();
    if (!isInPlace) return std::unexpected(isInPlace.error());
    if (!*isInPlace) return std::unexpected(syncAnchorExpiredError());
    if (lookedSince) return foldersHaveMovedSince(*lookedSince, cover_);
    // Where moves cannot be recorded, a single folder that is in place has its items there too.
    const auto there = Platform::current().files().checkStorage();
    if (cover_.isRecursive() || !there) return std::unexpected(lookedSince.error());
    return false;
}

std::unique_ptr<DirectoryWalk> LocalFileEnumerator::walkFor(const FSChangeToken& token) {
    const auto standsThere = [&](const Cursor& kept) {
        return kept.token.deviceUUID == token.deviceUUID &&
               kept.token.streamEventID == token.streamEventID && kept.token.offset == token.offset;
    };
    {
        const std::scoped_lock lock(mutex_);
        const auto found = std::find_if(cursors_.rbegin(), cursors_.rend(), standsThere);
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

Result<void> LocalFileEnumerator::addItems(Gathered& page, std::uint64_t offset) const {
    std::vector<QSURL> urls;
    urls.reserve(pageSize);
    const auto walked = page.walk->walk(offset, pageSize, [&](const QSURL& url) -> Result<void> {
        urls.push_back(url);
        return {};
    });
    if (!walked) {
        // The host looks up what is not at its URL again; what is no folder is none there either.
        const auto& error = walked.error();
        const bool isNoFolder = error.code == ENOTDIR && cover_.isInPlace().value_or(false);
        const bool hasMoved =
            cover_.mayMove() && !isNoFolder && lookFailureOf(error) == LookFailure::Missing;
        return std::unexpected(hasMoved ? syncAnchorExpiredError() : error);
    }
    // All of a page's identifiers in one durable step. An item without one would be missing from
    // the page, and nothing would report it later.
    if (auto identified = prefetchIdentifiers(urls); !identified) {
        logError([&] { return "can't prefetch identifiers; " + identified.error().description(); });
        return identified;
    }
    ItemFactory factory;
    page.items.reserve(urls.size());
    for (const auto& url : urls) {
        auto item = factory.makeItem(url);
        if (!item) return std::unexpected(std::move(item.error()));
        if (*item && (!cover_.showsFoldersOnly() || (*item)->isFolder())) {
            page.items.push_back(std::move(*item));
        }
    }
    return {};
}

}  // namespace tidewell

#include "tidewell/fs/FSChangesEnumerator.h"

#include <algorithm>
#include <limits>

#include "platform/fileprovider/Platform.h"
#include "platform/fileprovider/QSFileProviderError.h"
#include "platform/foundation/fatalError.h"
#include "platform/tree/TreeLayout.h"
#include "tidewell/common/Logging.h"
#include "tidewell/fs/ItemFactory.h"
#include "tidewell/fs/ObjectLookup.h"
#include "tidewell/fs/VolumeIdentity.h"
#include "tidewell/identity/QSURL+TWPFileObjectIdentifier.h"

namespace tidewell {

namespace {

constexpr auto everything = std::numeric_limits<std::uint64_t>::max();

/// Counts beyond this come from nobody's running count, and could overflow.
constexpr auto largestOffset = everything / 2;

FSChangeToken withUsableOffset(FSChangeToken token) {
    if (token.offset > largestOffset) token.offset = 0;
    return token;
}

std::vector<QSURL> notEmpty(std::vector<QSURL> urls) {
    if (urls.empty()) fatalError("require at least one URL to init a change enumerator");
    return urls;
}

/// Whether the event is about an object under a hidden name that it had before: no container shows
/// that, and what the object left for it has an event of its own. What is trashed changes its trash
/// in this way. A document ID may have come to the place, whatever the flags are.
bool staysHidden(const QSURL& url, const FSEvent& event) {
    constexpr auto changesPlace = fsEventMoved | fsEventRemoved | fsEventMustScanSubDirs;
    return (event.flags & changesPlace) == 0 && event.path == url.path() &&
           isHiddenName(url.lastPathComponent());
}

/// The identifier of the event's object; none if it never had one. It comes from the
/// event if the place is no longer below any root, its library being detached.
std::optional<std::string> identifierKeptBy(const QSURL& url, const FSEvent& event) {
    if (url.cachedResourceValue(QSResourceKey::IsDirectory).index() == 0) return std::nullopt;
    auto identifier = itemIdentifier(url);
    return identifier ? identifier : identifierOf(event);
}

}  // namespace

FSChangesEnumerator::FSChangesEnumerator(const FSChangeToken& token, std::string container,
                                         std::vector<QSURL> urls,
                                         std::shared_ptr<QSFileProviderChangeObserver> observer,
                                         std::uint64_t upToEventID)
    : queue_("tidewell.changes-enumerator"),
      cover_(std::move(container), notEmpty(std::move(urls))),
      sinceFSEventID_(token.streamEventID),
      upToEventID_(upToEventID),
      currentToken_(withUsableOffset(token)),
      numberOfChanges_(currentToken_.offset),
      startupFSEventID_(endOfReplay()),
      observer_(std::move(observer)) {}

std::uint64_t FSChangesEnumerator::endOfReplay() const {
    return std::min(endOfHistory(), upToEventID_);
}

void FSChangesEnumerator::makeReaders() {
    const auto makeReader = [&](FSEventReader::Mode mode) {
        return std::make_shared<FSEventReader>(cover_.urls(), sinceFSEventID_, mode, true);
    };
    docIDBased_ = {.reader = makeReader(FSEventReader::Mode::docIDBased)};
    pathBased_ = {.reader = makeReader(FSEventReader::Mode::pathBased)};
}

void FSChangesEnumerator::start() {
    const LogSection section([&] {
        return "fetching changes of " + container() + " since FSEventID " +
               std::to_string(sinceFSEventID_);
    });
    bool isOver = false;
    queue_.sync([&] {
        // Most often there is nothing, which needs no reader and no other thread.
        if (!isFinished() && nothingHasHappened()) {
            pathBasedReaderState_ = {startupFSEventID_, numberOfChanges_};
            finishCaughtUp();
        }
        isOver = isFinished();
        if (!isOver) makeReaders();
    });
    if (!isOver) startReaders();
}

bool FSChangesEnumerator::nothingHasHappened() const {
    const auto& history = *Platform::current().events().history;
    return startupFSEventID_ == sinceFSEventID_ && history.isCaughtUp() &&
           history.eventsAfter(sinceFSEventID_, sinceFSEventID_, 1);
}

void FSChangesEnumerator::startReaders() {
    // On the queue, so that the end, to which one reader may come at once, follows both starts.
    queue_.async([self = shared_from_this()] {
        if (self->isFinished()) return;
        const auto seen = currentFSEventIDAfterCatchingUp();
        if (!seen) return self->finishWithError(seen.error());
        self->lookedSinceFSEventID_ = *seen;
        // From here on a move of the folder is an event; before, it may be one that nobody reads.
        if (!self->requireInPlace()) return;
        self->startFeed(self->docIDBased_);
        self->startFeed(self->pathBased_);
    });
}

void FSChangesEnumerator::startFeed(Feed& feed) {
    const auto passed = [weak = weak_from_this(), reader = std::weak_ptr(feed.reader)] {
        const auto self = weak.lock();
        const auto source = reader.lock();
        if (!self || !source) return;
        const auto position = source->position();
        self->queue_.sync([&] {
            if (auto* own = self->feedOf(*source)) self->feedPassed(*own, position);
        });
    };
    const auto needsItem = [cover = cover_](const QSURL& url) {
        return cover.placeOf(url).cover == Cover::Shown;
    };
    const auto failed = [weak = weak_from_this(),
                         reader = std::weak_ptr(feed.reader)](const QSError& error) {
        const auto self = weak.lock();
        const auto source = reader.lock();
        if (!self || !source) return;
        self->queue_.sync([&] {
            if (!self->isFinished() && self->feedOf(*source)) self->finishWithError(error);
        });
    };
    feed.reader->setHints({.needsItem = needsItem, .passed = passed, .failed = failed});
    feed.reader->setDelegate(weak_from_this());
    feed.reader->start();
}

void FSChangesEnumerator::stop() {
    queue_.async([self = shared_from_this()] {
        if (self->isFinished()) return;
        self->finishExpired();
    });
}

FSChangesEnumerator::Feed* FSChangesEnumerator::feedOf(const FSEventReader& reader) {
    for (auto* feed : {&docIDBased_, &pathBased_}) {
        if (feed->reader.get() == &reader) return feed;
    }
    return nullptr;
}

void FSChangesEnumerator::itemChanged(FSEventReader& reader, const QSURL& url,
                                      std::shared_ptr<LocalItem> item) {
    queue_.sync([&] {
        queue_.assertOnQueue();
        const auto& event = reader.currentEvent();
        if (isFinished() || event.id > startupFSEventID_ || !feedOf(reader)) return;
        collect(event, url, item);
        feedPassed(*feedOf(reader), event.id);
    });
}

void FSChangesEnumerator::historyDone(FSEventReader& reader) {
    queue_.sync([&] {
        auto* feed = feedOf(reader);
        if (isFinished() || !feed || feed->hasCaughtUp) return;
        feed->hasCaughtUp = true;
        ++numberOfReaderCaughtUp_;
        startupFSEventID_ = std::min(startupFSEventID_, reader.currentEvent().id);
        if (feed == &pathBased_) pathBasedReaderState_ = {startupFSEventID_, numberOfChanges_};
        feedPassed(*feed, everything);
    });
}

void FSChangesEnumerator::eventsLost(FSEventReader& reader) {
    queue_.sync([&] {
        if (isFinished() || !feedOf(reader)) return;
        stopReaders();
        logInfo("fetching changes did finish after reset");
        finishExpired();
    });
}

void FSChangesEnumerator::ignore(const QSURL& url, Cover cover) const {
    logDebug([&] {
        const bool isLibrary = cover == Cover::Root && url.path() != presentedStoragePath;
        const auto reason = isLibrary ? std::string("; app library are not indexed")
                            : cover == Cover::NotAFolder
                                ? std::string("; item is not a directory")
                                : "; item is not a directory of " + container();
        return "ignore update of " + url.description() + reason;
    });
}

void FSChangesEnumerator::collect(const FSEvent& event, const QSURL& url,
                                  const std::shared_ptr<LocalItem>& item) {
    const auto place = cover_.placeOf(url);
    if (place.cover == Cover::Root && (event.flags & fsEventMustScanSubDirs) != 0) {
        logInfo("the whole container has to be scanned, need to restart from scratch");
        return finishExpired();
    }
    if (place.cover == Cover::Root || place.cover == Cover::Outside) {
        return ignore(url, place.cover);
    }
    if (place.package) {
        collectPackage(event.id, *place.package);
        // What is in a package of the folder was never in the folder itself.
        if (!cover_.isRecursive()) return;
    }
    if (staysHidden(url, event)) return ignore(url, Cover::Hidden);
    const auto identifier = identifierKeptBy(url, event);
    if (item && (!identifier || item->itemIdentifier() == *identifier)) {
        const auto cover = cover_.coverOf(*item);
        if (cover == Cover::Shown) {
            if ((event.flags & fsEventMustScanSubDirs) != 0 && item->isFolder()) {
                scan(event.id, url);
            }
            return add(event.id, item->itemIdentifier(), item);
        }
        if (cover == Cover::NotAFolder) return ignore(url, cover);
    }
    if (!identifier) {
        if (!item && (event.flags & fsEventRemoved) == 0) miss(url);
        return ignore(url, place.cover);
    }
    if (cover_.showsFoldersOnly() && event.identifierKind == IdentifierKind::Document) {
        return ignore(url, Cover::NotAFolder);
    }
    collectElsewhere(event, url, *identifier);
}

/// The object is not at the URL, or not shown there.
void FSChangesEnumerator::collectElsewhere(const FSEvent& event, const QSURL& url,
                                           const std::string& identifier) {
    const auto found = lookUp(event, identifier, cover_);
    if (!found) return finishWithError(found.error());
    for (const auto& place : found->missed) miss(place);
    if (found->shown) return add(event.id, identifier, found->shown);
    if (found->isOnTheMove) {
        logDebug([&] { return "ignore update of " + url.description() + "; it is on the move"; });
        return;
    }
    add(event.id, identifier, nullptr);
}

/// It is not where it should be. If it moved by itself, an event reports that; if a folder above it
/// moved, perhaps none does.
void FSChangesEnumerator::miss(const QSURL& url) {
    missedFolders_.insert(url.URLByDeletingLastPathComponent().path());
}

void FSChangesEnumerator::collectPackage(std::uint64_t eventID, const QSURL& url) {
    if (!packages_.insert(url.path()).second) return;
    const auto item = LocalItem::findAtURL(QSURL::fileURLWithPath(url.path()));
    if (!item) return finishWithError(item.error());
    if (*item && cover_.coverOf(**item) == Cover::Shown) {
        add(eventID, (*item)->itemIdentifier(), *item);
    }
}

/// Everything below a folder is an update. What does not fit a page fails there.
void FSChangesEnumerator::scan(std::uint64_t eventID, const QSURL& folder) {
    if (!cover_.isRecursive()) return;
    logDebug([&] { return "scanning folder " + folder.path(); });
    auto walk = cover_.makeWalk({{QSURL::fileURLWithPath(folder.path()), cover_.walkOptions()}});
    ItemFactory factory;
    std::optional<QSError> failure;
    const auto walked = walk.walk(0, pageSize + 1, [&](const QSURL& url) -> Result<void> {
        const auto item = factory.makeItem(url);
        if (!item) {
            failure = item.error();
            return std::unexpected(*failure);
        }
        if (*item && cover_.coverOf(**item) == Cover::Shown) {
            add(eventID, (*item)->itemIdentifier(), *item);
        }
        return {};
    });
    if (failure) return finishWithError(*failure);
    if (!walked || *walked > pageSize) finishExpired();
}

void FSChangesEnumerator::add(std::uint64_t eventID, std::string identifier, ItemRef item) {
    if (isFinished()) return;
    auto position = Position(eventID, nextChange_++);
    const auto known = positions_.find(identifier);
    if (known != positions_.end()) {
        position = std::min(position, known->second);
        changes_.erase(known->second);
    }
    positions_[identifier] = position;
    changes_[position] = {std::move(identifier), std::move(item)};
}

void FSChangesEnumerator::feedPassed(Feed& feed, std::uint64_t eventID) {
    if (isFinished()) return;
    feed.passed = std::max(feed.passed, eventID);
    if (!feed.hasEnough && !feed.hasCaughtUp && countUpTo(feed.passed) >= pageSize) {
        feed.hasEnough = true;
        feed.reader->stop();
    }
    deliverWhatIsReady();
}

std::uint64_t FSChangesEnumerator::countUpTo(std::uint64_t eventID) const {
    if (changes_.size() < pageSize) return changes_.size();
    return static_cast<std::uint64_t>(
        std::distance(changes_.begin(), changes_.upper_bound({eventID, everything})));
}

void FSChangesEnumerator::deliverWhatIsReady() {
    const auto passedByBoth = std::min({docIDBased_.passed, pathBased_.passed, startupFSEventID_});
    const bool isFull = countUpTo(passedByBoth) >= pageSize;
    if (!isFull && numberOfReaderCaughtUp_ != 2) return;
    const auto haveMoved = foldersHaveMoved();
    if (!haveMoved) return finishWithError(haveMoved.error());
    if (*haveMoved) return beginAgain();
    if (!requireInPlace()) return;
    if (isFull) {
        finishPage();
    } else {
        finishCaughtUp();
    }
}

/// Whether a folder went elsewhere while places were looked at. What happened below it before then
/// has no event at its new place, and may have been looked for at the old one in vain.
Result<bool> FSChangesEnumerator::foldersHaveMoved() {
    // The kernel may not have reported it.
    if (!missedFolders_.empty()) {
        const std::vector folders(missedFolders_.begin(), missedFolders_.end());
        auto seen = Platform::current().volume().waitUntilSeenLooking(folders);
        if (!seen) return std::unexpected(std::move(seen.error()));
        missedFolders_.clear();
    }
    return foldersHaveMovedSince(lookedSinceFSEventID_, cover_);
}

/// Ends the enumeration where the container's URL does not lead to its folder: what happens in
/// the folder is reported at another path, and what is at this path is another folder's.
bool FSChangesEnumerator::requireInPlace() {
    const auto isInPlace = cover_.isInPlace();
    if (!isInPlace) {
        finishWithError(isInPlace.error());
    } else if (!*isInPlace) {
        logInfo([&] {
            return container() + " is not at " + cover_.urls().front().path() +
                   " any more, need to restart from scratch";
        });
        finishExpired();
    }
    return isInPlace.value_or(false);
}

void FSChangesEnumerator::beginAgain() {
    constexpr int mostBeginnings = 8;
    if (beginnings_++ == mostBeginnings) {
        logInfo("folders move all the time, need to restart from scratch");
        return finishExpired();
    }
    logDebug("folders have moved meanwhile, looking again");
    stopReaders();
    changes_.clear();
    positions_.clear();
    packages_.clear();
    numberOfChanges_ = currentToken_.offset;
    numberOfReaderCaughtUp_ = 0;
    pathBasedReaderState_.reset();
    startupFSEventID_ = endOfReplay();
    makeReaders();
    startReaders();
}

bool FSChangesEnumerator::pageIsFull() const {
    if (numberOfChanges_ < currentToken_.offset) return false;
    const auto collected = numberOfChanges_ - currentToken_.offset;
    if (collected > pageSize) {
        logError([&] {
            return "invalid number of changes (" + std::to_string(numberOfChanges_) + " - " +
                   std::to_string(currentToken_.offset) + ") shouldn't be greater than " +
                   std::to_string(pageSize) + ")";
        });
    }
    return collected > pageSize - 1;
}

/// Takes whole events, so that the page ends with one.
void FSChangesEnumerator::finishPage() {
    std::vector<Change> page;
    std::uint64_t lastEventID = 0;
    for (auto next = changes_.begin(); next != changes_.end() && !pageIsFull();) {
        const auto eventID = next->first.first;
        const auto end = changes_.upper_bound({eventID, everything});
        const auto size = static_cast<std::uint64_t>(std::distance(next, end));
        if (numberOfChanges_ - currentToken_.offset + size > pageSize) break;
        for (; next != end; ++next) page.push_back(std::move(next->second));
        numberOfChanges_ += size;
        lastEventID = eventID;
    }
    if (page.empty()) {
        logInfo("one event has more changes than a page, need to restart from scratch");
        return finishExpired();
    }
    pathBasedReaderState_ = {lastEventID, numberOfChanges_};
    currentToken_.streamEventID = pathBasedReaderState_->eventID;
    currentToken_.offset = pathBasedReaderState_->offset;
    forward(std::move(page));
    finish([&](QSFileProviderChangeObserver& observer) {
        observer.finishEnumeratingChangesUpToSyncAnchor(currentToken_.data(), true);
    });
}

void FSChangesEnumerator::finishCaughtUp() {
    if (!pathBasedReaderState_) logError("path based reader bookmark is missing");
    std::vector<Change> page;
    const auto end = changes_.upper_bound({startupFSEventID_, everything});
    for (auto next = changes_.begin(); next != end; ++next) {
        page.push_back(std::move(next->second));
        ++numberOfChanges_;
    }
    currentToken_.streamEventID = startupFSEventID_;
    currentToken_.offset = numberOfChanges_;
    logDebug([&] {
        return "fetching changes did catch up (eventID:" +
               std::to_string(currentToken_.streamEventID) + ")";
    });
    forward(std::move(page));
    finish([&](QSFileProviderChangeObserver& observer) {
        observer.finishEnumeratingChangesUpToSyncAnchor(currentToken_.data(), false);
    });
}

void FSChangesEnumerator::forward(std::vector<Change> changes) {
    std::vector<ItemRef> updates;
    std::vector<QSFileProviderItemIdentifier> deletions;
    for (auto& change : changes) {
        if (change.item) {
            updates.push_back(std::move(change.item));
        } else {
            deletions.push_back(std::move(change.identifier));
        }
    }
    logDebug([&] { return "forward update of " + std::to_string(updates.size()) + " items"; });
    if (!updates.empty()) observer_->didUpdateItems(std::move(updates));
    logDebug([&] { return "forward deletion of " + std::to_string(deletions.size()) + " items"; });
    if (!deletions.empty()) observer_->didDeleteItemsWithIdentifiers(std::move(deletions));
}

void FSChangesEnumerator::finish(
    const std::function<void(QSFileProviderChangeObserver&)>& lastCall) {
    if (isFinished()) return;
    stopReaders();
    changes_.clear();
    positions_.clear();
    packages_.clear();
    const auto observer = std::move(observer_);
    observer_ = nullptr;
    lastCall(*observer);
}

void FSChangesEnumerator::finishWithError(const QSError& error) {
    finish([&](QSFileProviderChangeObserver& observer) {
        observer.finishEnumeratingWithError(error);
    });
}

void FSChangesEnumerator::finishExpired() {
    finishWithError(syncAnchorExpiredError());
}

void FSChangesEnumerator::stopReaders() {
    for (auto* feed : {&docIDBased_, &pathBased_}) {
        if (!feed->reader) continue;
        feed->reader->stop();
        feed->reader->setDelegate({});
    }
}

}  // namespace tidewell

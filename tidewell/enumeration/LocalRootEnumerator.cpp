#include "tidewell/enumeration/LocalRootEnumerator.h"

#include <algorithm>
#include <set>
#include <utility>

#include "platform/fileprovider/Platform.h"
#include "platform/fileprovider/QSFileProviderError.h"
#include "platform/tree/PathRelation.h"
#include "platform/tree/TreeLayout.h"
#include "tidewell/common/Logging.h"
#include "tidewell/fs/ObjectLookup.h"
#include "tidewell/fs/VolumeIdentity.h"

namespace tidewell {

namespace {

/// The storage first, then the library roots sorted by their bytes.
std::vector<QSURL> treeRoots(const AppLibraryRoots& libraries) {
    std::vector<QSURL> urls{QSFileProviderManager::defaultManager().documentStorageURL()};
    for (const auto& [root, bundle] : libraries) urls.push_back(root);
    return urls;
}

/// Not the table, which is ahead of the main cache while a set is being published.
AppLibraryRoots presentLibraries(const AppLibraries& appLibraries) {
    return rootsOf(appLibraries.mainCache()->content().bundleProxies);
}

/// Hands everything on, unless another set was published before the end: with no event to stop at,
/// the anchor may then have passed what that set brought with it.
class PublicationGuard final : public QSFileProviderChangeObserver {
  public:
    PublicationGuard(std::shared_ptr<QSFileProviderChangeObserver> observer,
                     std::shared_ptr<const LocalAppLibraryCache> mainCache, std::uint64_t version)
        : observer_(std::move(observer)), mainCache_(std::move(mainCache)), version_(version) {}

    void didUpdateItems(std::vector<ItemRef> items) override {
        observer_->didUpdateItems(std::move(items));
    }
    void didDeleteItemsWithIdentifiers(
        std::vector<QSFileProviderItemIdentifier> identifiers) override {
        observer_->didDeleteItemsWithIdentifiers(std::move(identifiers));
    }
    void finishEnumeratingChangesUpToSyncAnchor(QSFileProviderSyncAnchor anchor,
                                                bool moreComing) override {
        if (mainCache_->versionToken() != version_) {
            return finishEnumeratingWithError(syncAnchorExpiredError());
        }
        observer_->finishEnumeratingChangesUpToSyncAnchor(std::move(anchor), moreComing);
    }
    void finishEnumeratingWithError(QSError error) override {
        observer_->finishEnumeratingWithError(std::move(error));
    }

  private:
    std::shared_ptr<QSFileProviderChangeObserver> observer_;
    std::shared_ptr<const LocalAppLibraryCache> mainCache_;
    std::uint64_t version_;
};

}  // namespace

LocalRootEnumerator::LocalRootEnumerator(std::string container,
                                         std::shared_ptr<AppLibraries> appLibraries)
    : container_(std::move(container)),
      isWorkingSet_(container_ == QSFileProviderWorkingSetContainerItemIdentifier),
      appLibraries_(std::move(appLibraries)),
      appLibraryManager_(isWorkingSet_ ? appLibraries_->workingSetCache()
                                       : appLibraries_->mainCache()),
      enumQueue_("tidewell.root-enumerator.queue"),
      localFileEnumerator_(std::make_shared<LocalFileEnumerator>(
          container_, treeRoots(presentLibraries(*appLibraries_)))) {}

std::shared_ptr<LocalRootEnumerator> LocalRootEnumerator::initWithContainer(
    std::string container, std::shared_ptr<AppLibraries> appLibraries) {
    std::shared_ptr<LocalRootEnumerator> self(
        new LocalRootEnumerator(std::move(container), std::move(appLibraries)));
    // One that signals has to hear of what happens in a new library before it is asked again.
    self->listening_ = self->appLibraries_->listen([weak = self->weak_from_this()] {
        const auto alive = weak.lock();
        if (alive) (void)alive->fileEnumeratorOver(presentLibraries(*alive->appLibraries_));
    });
    return self;
}

LocalRootEnumerator::~LocalRootEnumerator() {
    localFileEnumerator_->stop();
}

void LocalRootEnumerator::start() {
    std::shared_ptr<LocalFileEnumerator> started;
    enumQueue_.sync([&] {
        if (!std::exchange(isRunning_, true)) started = localFileEnumerator_;
    });
    if (started) started->start();
}

void LocalRootEnumerator::stop() {
    std::shared_ptr<LocalFileEnumerator> stopped;
    enumQueue_.sync([&] {
        if (std::exchange(isRunning_, false)) stopped = localFileEnumerator_;
    });
    if (stopped) stopped->stop();
}

std::shared_ptr<LocalFileEnumerator> LocalRootEnumerator::fileEnumeratorOver(
    const AppLibraryRoots& libraries) {
    std::shared_ptr<LocalFileEnumerator> present;
    std::shared_ptr<LocalFileEnumerator> replaced;
    enumQueue_.sync([&] {
        auto roots = treeRoots(libraries);
        if (localFileEnumerator_->urls() != roots) {
            logInfo([&] {
                std::string text;
                for (const auto& root : roots) text += (text.empty() ? "" : ", ") + root.path();
                return "updated root enumerator to monitor [" + text + "]";
            });
            replaced = std::exchange(localFileEnumerator_, std::make_shared<LocalFileEnumerator>(
                                                               container_, std::move(roots)));
            if (isRunning_) localFileEnumerator_->start();
            if (replaced->isObserving()) localFileEnumerator_->observe();
        }
        present = localFileEnumerator_;
    });
    // What it was running ends with an expired anchor; its observers are called on other queues.
    if (replaced) replaced->stop();
    return present;
}

void LocalRootEnumerator::enumerateItemsForObserver(
    std::shared_ptr<QSFileProviderEnumerationObserver> observer,
    const QSFileProviderPage& startingAtPage) {
    const LogSection section([&] { return "enumerate root items for " + container_; });
    auto sinceEventID = LocalFileEnumerator::noLimit;
    if (isInitialPage(startingAtPage)) {
        // Before the set is read, so that a set that comes later voids the pages of this one.
        sinceEventID = currentFSEventIDAfterCatchingUp().value_or(currentFSEventID());
    }
    const auto libraries = presentLibraries(*appLibraries_);
    if (isInitialPage(startingAtPage)) {
        auto items = itemsOf(libraries);
        logDebug([&] { return "discovered " + std::to_string(items.size()) + " app-libraries"; });
        observer->didEnumerateItems(std::move(items));
    }
    fileEnumeratorOver(libraries)->enumerateItems(observer, startingAtPage, sinceEventID);
}

void LocalRootEnumerator::enumerateChangesForObserver(
    std::shared_ptr<QSFileProviderChangeObserver> observer,
    const QSFileProviderSyncAnchor& fromSyncAnchor) {
    const LogSection section([&] { return "enumerate root changes for " + container_; });
    auto token = FSChangeToken::fromData(fromSyncAnchor);
    if (!token) {
        logError("can't create change token from anchor data, resetting");
        return observer->finishEnumeratingWithError(syncAnchorExpiredError());
    }
    // Before the set is read: the roots of a set that comes later are recorded after this event, so
    // no anchor that names an older set has passed them.
    const auto upToEventID = endOfHistory();
    auto changes = appLibraryStep(*token);
    if (!changes) return observer->finishEnumeratingWithError(changes.error());
    if (!changes->items.empty()) observer->didUpdateItems(std::move(changes->items));
    if (!changes->deletions.empty()) {
        observer->didDeleteItemsWithIdentifiers(std::move(changes->deletions));
    }
    if (upToEventID == LocalFileEnumerator::noLimit) {
        observer = std::make_shared<PublicationGuard>(std::move(observer),
                                                      appLibraries_->mainCache(), changes->version);
    }
    fileEnumeratorOver(appLibraryManager_.bundleProxiesByRootURLs())
        ->enumerateChanges(std::move(observer), token->data(), upToEventID);
}

void LocalRootEnumerator::currentSyncAnchorWithCompletionHandler(
    SyncAnchorHandler completionHandler) {
    fileEnumeratorOver(presentLibraries(*appLibraries_))
        ->currentSyncAnchorWithCompletionHandler(std::move(completionHandler));
}

std::string LocalRootEnumerator::versionSuffix(std::uint64_t changeTokenVersion) const {
    return " [changeTokenVersion: " + std::to_string(changeTokenVersion) + ", workingSetVersion: " +
           std::to_string(appLibraries_->workingSetCache()->versionToken()) +
           ", mainCacheVersion: " + std::to_string(appLibraries_->mainCache()->versionToken()) +
           "]";
}

bool LocalRootEnumerator::isUsable(std::uint64_t changeTokenVersion,
                                   std::uint64_t localVersion) const {
    if (!isWorkingSet_ && localVersion < changeTokenVersion) {
        logInfo([&] {
            return "app-library version is greater than local version, need to restart from "
                   "scratch" +
                   versionSuffix(changeTokenVersion);
        });
        return false;
    }
    if (changeTokenVersion == 0) {
        logInfo("change token version is zero, let's send all the app-libraries known");
        return true;
    }
    if (appLibraries_->mainCache()->versionToken() == 0) {
        logInfo("the app libraries could not be saved, need to restart from scratch");
        return false;
    }
    if (changeTokenVersion == localVersion) {
        logDebug("change token version matches local version");
        return true;
    }
    logInfo([&] {
        return "change token version matches nothing, need to restart from scratch" +
               versionSuffix(changeTokenVersion);
    });
    return false;
}

Result<LocalRootEnumerator::LibraryChanges> LocalRootEnumerator::appLibraryStep(
    FSChangeToken& token) {
    const auto changeTokenVersion = token.appLibraryVersionToken;
    if (!isUsable(changeTokenVersion, appLibraryManager_.versionToken())) {
        return std::unexpected(syncAnchorExpiredError());
    }
    std::optional<std::uint64_t> requiredVersion;
    if (isWorkingSet_ && changeTokenVersion != 0) {
        requiredVersion = appLibraries_->workingSetCache()->versionToken();
    }
    const auto upgrade =
        appLibraryManager_.upgradeFromMainCache(*appLibraries_->mainCache(), requiredVersion);
    if (!upgrade) {
        logInfo([&] {
            return "local version was never saved, need to restart from scratch" +
                   versionSuffix(changeTokenVersion);
        });
        return std::unexpected(syncAnchorExpiredError());
    }
    if (upgrade->changed) logInfo("upgraded manager");
    const bool isSaved = !isWorkingSet_ || saveWorkingSet();
    // The next process would know no other version, and version 0 is good for every set.
    token.appLibraryVersionToken = isSaved ? upgrade->versionToken : 0;

    LibraryChanges changes;
    changes.version = upgrade->versionToken;
    // Another caller may have upgraded the manager since the token was found to match it.
    if (upgrade->versionToken != changeTokenVersion || changeTokenVersion == 0) {
        changes.items = appLibraryManager_.appLibraryItems();
    }
    // A library may have been added and removed, with what was moved there. And a token that names
    // no version does not say either which libraries its host has listed.
    if (upgrade->versionToken == changeTokenVersion && changeTokenVersion != 0) return changes;
    auto lost = identifiersLost(token.streamEventID);
    if (!lost) return std::unexpected(std::move(lost.error()));
    changes.deletions = upgrade->removedIdentifiers();
    for (const auto& identifier : changes.deletions) lost->erase(identifier);
    changes.deletions.insert(changes.deletions.end(), lost->begin(), lost->end());
    return changes;
}

/// Saves the set that the clients of the working set have got; again where a former save failed.
bool LocalRootEnumerator::saveWorkingSet() {
    const auto content = appLibraryManager_.content();
    const auto main = appLibraries_->mainCache()->versionToken();
    const auto saved = appLibraries_->workingSetCache()->update(
        [&](const AppLibraryContent& present) -> std::optional<AppLibraryContent> {
            // A newer set may have been published since, which another enumerator has saved.
            const bool isSaved = content.versionToken == present.versionToken ||
                                 (content.versionToken != main && present.versionToken == main);
            if (isSaved || content.versionToken == 0) return std::nullopt;
            return content;
        },
        {});
    if (saved) return true;
    logError([&] { return "can't save working-set cache to disk;" + saved.error().description(); });
    return false;
}

/// The detached libraries, and everything below them that the history has events of, without
/// what the container shows elsewhere.
Result<std::set<std::string>> LocalRootEnumerator::identifiersLost(
    std::uint64_t sinceEventID) const {
    constexpr std::size_t batch = 4096;
    const auto roots = treeRoots(appLibraryManager_.bundleProxiesByRootURLs());
    const ContainerCover cover(container_, roots);
    const auto& history = *Platform::current().events().history;
    if (!history.isCaughtUp()) {
        auto seen = Platform::current().volume().waitUntilSeen();
        if (!seen) return std::unexpected(std::move(seen.error()));
    }
    const auto last = currentFSEventID();
    const auto detached =
        history.selectedEventsAfter(sinceEventID, last, 1, EventSelection::DetachedRoots);
    if (!detached) return std::unexpected(errorForHistory(detached.error()));
    std::set<std::string> found;
    if (detached->empty()) return found;  // as nearly always, without reading what happened
    for (auto after = sinceEventID; after < last;) {
        const auto events = history.eventsAfter(after, last, batch);
        if (!events) return std::unexpected(errorForHistory(events.error()));
        for (const auto& event : *events) {
            const auto holdsIt = [&](const QSURL& root) {
                return isAtOrBelow(event.path, root.path());
            };
            const auto application = identifierOfContainerAt(event.path);
            if (!application || std::ranges::any_of(roots, holdsIt)) continue;
            found.insert("#" + *application);
            if (!cover.isRecursive()) continue;
            const auto identifier = identifierOf(event);
            if (!identifier || found.contains(*identifier)) continue;
            const auto where = lookUp(event, *identifier, cover);
            if (!where) return std::unexpected(where.error());
            if (!where->shown && !where->isOnTheMove) found.insert(*identifier);
        }
        if (events->size() < batch) break;
        after = events->back().id;
    }
    return found;
}

}  // namespace tidewell

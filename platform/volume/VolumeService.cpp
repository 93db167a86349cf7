#include "platform/volume/VolumeService.h"

#include <fcntl.h>

#include <cerrno>

#include "platform/files/LookFailure.h"
#include "platform/volume/Beginning.h"
#include "platform/volume/Follower.h"
#include "platform/volume/VolumeState.h"

namespace platform {

VolumeService::VolumeService(std::unique_ptr<State> state) : state_(std::move(state)) {}

Result<std::unique_ptr<VolumeService>> VolumeService::open(Configuration configuration) {
    auto state = std::make_unique<State>(std::move(configuration));
    const auto& files = state->configuration.files;
    const auto root = files.storageURL();
    const auto folder = files.openObject(root, O_RDONLY | O_DIRECTORY);
    if (!folder) return std::unexpected(folder.error());
    const auto attributes = files.freshAttributes(root);
    if (!attributes) return std::unexpected(attributes.error());
    const auto identity = (*attributes)->identity;
    const auto opened = Beginning::now(state->configuration.clocks);

    auto store =
        IdentityStore::open(state->configuration.dataFolder, state->configuration.stateFolder,
                            VolumeFingerprint::of(folder->get(), identity),
                            FolderWitness::read(folder->get(), identity), state->index);
    if (!store) return std::unexpected(store.error());
    state->store = std::move(*store);
    state->store->retention.count = state->configuration.eventsKept;
    state->trash.load(state->store->popTrash());
    state->clock = std::make_unique<ElapsedClock>(state->configuration.stateFolder + "/clock",
                                                  state->configuration.clocks);
    state->device = (*attributes)->device;
    state->identityIsWeak = (*attributes)->identityIsWeak;
    const auto& facts = state->store->state();
    state->history = facts.history;
    state->freshOnly = facts.freshOnly;
    state->trouble = facts.trouble;
    const bool isNew = state->index.size() == 0;
    state->addRoot(identity, root);
    if (isNew) {
        // On the disk before the first anchor is handed out.
        const auto node = state->roots.front().node;
        state->index.setMetadata(node, opened.text());
        std::vector<EventRecord> noEvents;
        const ObjectRow row = state->index.row(node);
        if (auto done = state->write({&row, 1}, true, noEvents); !done) {
            return std::unexpected(done.error());
        }
        state->index.markStored(node);
    }

    state->writeFolderWitness();
    state->follower->resumeDecisions();
    if (state->configuration.followsAtStart) state->follower->follow();
    return std::unique_ptr<VolumeService>(new VolumeService(std::move(state)));
}

VolumeService::~VolumeService() {
    state_->follower->stop();
    state_->hasEvents = true;
    state_->announce();
    if (state_->store->hasStored()) state_->folderWitnessIsDue = true;
    state_->writeFolderWitness();
    const std::scoped_lock lock(state_->storeMutex);
    state_->storeTrash();
    // Then the rows would be ahead of what the next run has to find.
    if (!state_->unwritten.empty()) return;
    std::vector<ObjectRow> rows;
    for (const auto node : state_->index.popDirty()) {
        rows.push_back(state_->index.row(node));
    }
    (void)state_->store->finish(rows);
}

Result<void> VolumeService::addRoot(const QSURL& root) {
    const auto attributes = state_->configuration.files.freshAttributes(root);
    if (!attributes) return std::unexpected(attributes.error());
    if ((*attributes)->device != state_->device) {
        return std::unexpected(errorFromErrno(EXDEV, root.path()));
    }
    if ((*attributes)->kind() != ObjectKind::Directory) {
        return std::unexpected(errorFromErrno(ENOTDIR, root.path()));
    }
    return state_->follower->addRoot((*attributes)->identity, root);
}

Result<void> VolumeService::removeRoot(const QSURL& root) {
    if (root == state_->configuration.files.storageURL()) return {};
    return state_->follower->removeRoot(root);
}

std::vector<QSURL> VolumeService::formerRoots() const {
    const std::shared_lock lock(state_->indexMutex);
    std::vector<QSURL> urls;
    for (const auto node : state_->index.formerRoots()) {
        urls.push_back(QSURL::fileURLWithPath(state_->index.rootPath(node)));
    }
    return urls;
}

std::optional<QSUUID> VolumeService::UUIDForDevice(std::uint32_t device) const {
    if (device != state_->device) return std::nullopt;
    return state_->history;
}

std::uint64_t VolumeService::currentEventID() const {
    return state_->store->lastEvent();
}

void VolumeService::follow() {
    state_->follower->follow();
}

ElapsedClock& VolumeService::clock() {
    return *state_->clock;
}

void VolumeService::State::storeTrash() {
    const auto changes = trash.popChanges();
    if (!changes.empty() && !store->writeTrash(changes)) trash.markChanged(changes);
}

TrashLedger& VolumeService::trash() {
    return state_->trash;
}

std::unique_ptr<TrashLedger::Intent> VolumeService::trashingBegins(const std::string& trash,
                                                                   const ObjectIdentity& object,
                                                                   TrashRecord record) {
    auto intent = std::make_unique<TrashLedger::Intent>(state_->trash, trash, object);
    state_->trash.put(trash, object, std::move(record));
    const std::scoped_lock lock(state_->storeMutex);
    state_->storeTrash();
    return intent;
}

bool VolumeService::step() {
    state_->follower->follow();
    return state_->follower->step();
}

bool VolumeService::isCaughtUp() const {
    return state_->follower->isCaughtUp();
}

Result<std::vector<FSEvent>> VolumeService::selectedEventsAfter(std::uint64_t after,
                                                                std::uint64_t upTo,
                                                                std::size_t limit,
                                                                EventSelection selection) const {
    {
        const std::shared_lock lock(state_->indexMutex);
        if (state_->storageTrouble) return std::unexpected(*state_->storageTrouble);
    }
    Result<std::vector<EventRecord>> records;
    {
        const std::scoped_lock lock(state_->storeMutex);
        records = state_->store->events(after, upTo, limit, selection);
    }
    if (!records) return std::unexpected(std::move(records.error()));
    std::vector<FSEvent> events;
    events.reserve(records->size());
    for (auto& record : *records) events.push_back(state_->present(std::move(record)));
    return events;
}

std::shared_ptr<void> VolumeService::subscribe(Listener listener) {
    auto subscriber = std::make_shared<State::Subscriber>();
    subscriber->listener = std::move(listener);
    {
        const std::scoped_lock lock(state_->subscribersMutex);
        auto& subscribers = state_->subscribers;
        // Those that unsubscribed would stay until there is an event.
        if (subscribers.size() == subscribers.capacity()) {
            std::erase_if(subscribers, [](const auto& known) { return known.expired(); });
        }
        subscribers.push_back(subscriber);
    }
    state_->follower->follow();
    return {subscriber.get(), [subscriber](void*) {
                const std::scoped_lock lock(subscriber->mutex);
                subscriber->listener = nullptr;
            }};
}

Result<void> VolumeService::waitUntilSeen() {
    return state_->follower->wait(Follower::Barrier::Seen);
}

Result<void> VolumeService::waitUntilSeenLooking(std::span<const std::string> folders) {
    return state_->follower->waitLooking(folders);
}

Result<void> VolumeService::waitUntilSettled() {
    return state_->follower->wait(Follower::Barrier::Settled);
}

std::vector<QSURL> VolumeService::placesOfFileID(std::uint64_t fileID) const {
    const std::shared_lock lock(state_->indexMutex);
    const auto number = state_->index.findFileID(fileID);
    return number == ObjectIndex::none ? std::vector<QSURL>{} : state_->urlsOf(number);
}

std::optional<std::uint64_t> VolumeService::fileIDOfFolder(const ObjectIdentity& identity) const {
    const std::shared_lock lock(state_->indexMutex);
    const auto& index = state_->index;
    const auto number = index.findInode(identity.inode);
    if (number == ObjectIndex::none) return std::nullopt;
    const auto& node = index.node(number);
    const bool isKnown = node.fileID != 0 && node.generation == identity.generation;
    if (!isKnown || node.hasNewNumbers || node.isRoot) return std::nullopt;
    if (node.firstName == ObjectIndex::none) return std::nullopt;
    const auto name = index.name(index.entry(node.firstName));
    return state_->configuration.isPackageName(name) ? std::nullopt : std::optional(node.fileID);
}

std::optional<QSURL> VolumeService::placeOfInode(std::uint64_t inode) const {
    const std::shared_lock lock(state_->indexMutex);
    const auto number = state_->index.findInode(inode);
    return number == ObjectIndex::none ? std::nullopt : state_->urlOf(number);
}

std::vector<QSURL> VolumeService::placesOfDocumentID(std::uint32_t documentID) const {
    const std::shared_lock lock(state_->indexMutex);
    const auto number = state_->index.findDocumentID(documentID);
    return number == ObjectIndex::none ? std::vector<QSURL>{} : state_->urlsOf(number);
}

Result<std::vector<QSURL>> VolumeService::placesOfObjectAt(const QSURL& url) {
    const auto& files = state_->configuration.files;
    const auto object = files.freshAttributes(url);
    if (!object) return std::unexpected(object.error());
    if ((*object)->isDirectory() || (*object)->linkCount < 2) return std::vector{url};
    if (auto seen = waitUntilSeen(); !seen) return std::unexpected(seen.error());
    std::vector<QSURL> places;
    {
        const std::shared_lock lock(state_->indexMutex);
        const auto number = state_->index.findInode((*object)->identity.inode);
        if (number != ObjectIndex::none) places = state_->urlsOf(number);
    }
    if (std::ranges::find(places, url) == places.end()) places.push_back(url);
    std::erase_if(places, [&](const QSURL& place) {
        const auto found = files.freshAttributes(place);
        return !found || (*found)->identity != (*object)->identity;
    });
    return places;
}

bool VolumeService::isMissing(const FSEvent& event) const {
    return state_->missingObjectOf(event) != ObjectIndex::none;
}

std::optional<QSURL> VolumeService::lastPlaceOf(const FSEvent& event) const {
    const auto number = state_->missingObjectOf(event);
    if (number == ObjectIndex::none) return std::nullopt;
    return state_->follower->lastPlaceOf(number);
}

void VolumeService::decideAbout(const FSEvent& event) {
    if (event.identifierKind == IdentifierKind::Document) {
        state_->follower->decideAbout(event.documentID);
    }
}

Result<void> VolumeService::identify(std::span<IdentityRequest> requests) {
    for (const auto& request : requests) {
        if (request.object->identityIsWeak) state_->identityIsWeak = true;
    }
    Result<void> done;
    if (state_->needsDecision(requests)) done = state_->follower->decideFor(requests);
    if (!done && state_->follower->haveOnlyMoved(requests)) done = {};
    if (done && state_->hasUnstored(requests)) done = state_->follower->commit();
    if (done && !state_->answerFromIndex(requests)) done = state_->allocate(requests);
    state_->follower->writeFolderWitness();
    if (done) state_->requestRechecks(requests);
    return done;
}

Result<std::uint64_t> VolumeService::fileIDForDocumentID(std::uint32_t documentID) const {
    const std::shared_lock lock(state_->indexMutex);
    const auto number = state_->index.findDocumentID(documentID);
    if (number == ObjectIndex::none) return std::unexpected(errorFromErrno(ENOENT));
    return state_->index.node(number).fileID;
}

Result<QSURL> VolumeService::URLForFileID(std::uint64_t fileID) {
    // Each look may find that the object has moved on since the last one.
    constexpr int mostLooks = 16;
    for (int look = 1;; ++look) {
        const auto located = state_->locate(fileID);
        if (!located) return std::unexpected(located.error());
        if (located->url) return *located->url;
        const bool isSomewhere = !located->missedIn.empty();
        if (look == mostLooks && isSomewhere) return std::unexpected(movesAllTheTimeError());
        const bool mayBeThere = look < mostLooks && (isSomewhere || located->isMissing);
        if (look > 1 && !mayBeThere) return std::unexpected(errorFromErrno(ENOENT));
        const bool looksThere = look > 1 && isSomewhere;
        const auto seen = looksThere ? waitUntilSeenLooking(located->missedIn) : waitUntilSeen();
        if (!seen) return std::unexpected(seen.error());
    }
}

void VolumeService::removalBegins(const ObjectIdentity& object) {
    const std::scoped_lock lock(state_->removalsMutex);
    state_->removing.emplace(object.inode, object.generation);
}

void VolumeService::moveEnds(const ObjectIdentity& object, bool isDone) {
    if (!isDone) return removalEnds(object, false);
    {
        const std::scoped_lock lock(state_->removalsMutex);
        state_->moved.push_back(object);
    }
    state_->follower->wake();
}

void VolumeService::removalEnds(const ObjectIdentity& object, bool isRemoved) {
    {
        const std::scoped_lock lock(state_->removalsMutex);
        if (!isRemoved) {
            const auto found = state_->removing.find({object.inode, object.generation});
            if (found != state_->removing.end()) state_->removing.erase(found);
            return;
        }
        state_->removed.push_back(object);
    }
    state_->follower->wake();
}

std::optional<QSError> VolumeService::writeTrouble() {
    if (!state_->follower->storeTrouble()) return std::nullopt;
    const auto seen = waitUntilSeen();  // which tries once more
    return seen ? std::nullopt : std::optional(seen.error());
}

void VolumeService::noteService(pid_t process, std::string_view socket) const {
    state_->store->noteService(process, socket);
}

std::optional<std::uint64_t> VolumeService::entryCount(const FileAttributes& folder) const {
    const std::shared_lock lock(state_->indexMutex);
    const auto number = state_->index.findInode(folder.identity.inode);
    if (number == ObjectIndex::none) return std::nullopt;
    const auto& node = state_->index.node(number);
    // Where everything is followed, a change that the stamp does not show has been seen all the
    // same.
    const bool isCertain = !node.isRacy || state_->follower->seesEverything();
    if (!node.isListed || node.stamp != stampOf(folder) || !isCertain) return std::nullopt;
    return node.childCount;
}

VolumeService::Statistics VolumeService::statistics() const {
    const auto health = state_->follower->health();
    Statistics statistics{};
    statistics.isFollowing = state_->follower->isFollowing();
    statistics.isCaughtUp = isCaughtUp();
    statistics.watches = health.watches;
    statistics.watchLimit = inotifyWatchLimit();
    statistics.degradedFolders = health.degradedFolders;
    statistics.degradedFolderCount = health.degradedFolderCount;
    statistics.storageTrouble = health.storageTrouble;
    statistics.writeTrouble = health.storeTrouble;
    statistics.identityIsWeak = state_->identityIsWeak;
    const std::scoped_lock storeLock(state_->storeMutex);
    statistics.storePath = state_->store->path();
    statistics.oldestEventID = state_->store->state().floor;
    statistics.currentEventID = state_->store->lastEvent();
    statistics.eventCount = state_->store->eventCount();
    if (!state_->trouble.empty()) statistics.lastTrouble = state_->trouble;
    if (!state_->lastGap.empty()) statistics.lastGap = state_->lastGap;
    const std::shared_lock lock(state_->indexMutex);
    statistics.objects = state_->index.size();
    statistics.indexBytes = state_->index.bytes();
    for (const auto& root : state_->roots) {
        statistics.roots.push_back(state_->configuration.files.nativePath(root.url));
    }
    return statistics;
}

}  // namespace platform

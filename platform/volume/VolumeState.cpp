#include "platform/volume/VolumeState.h"

#include <algorithm>
#include <unordered_map>

#include "platform/files/LookFailure.h"
#include "platform/volume/Follower.h"
#include "platform/volume/PreferredPlace.h"
#include "platform/volume/UserMetadataCopy.h"

namespace platform {

namespace {

/// Events that wait for a store that can be written to; more than these are a gap.
constexpr std::size_t mostUnwritten = 100'000;

bool hasPlace(const VolumeService::IdentityRequest& request) {
    return !request.name.empty() && request.object->parent.inode != 0;
}

/// Gives the row the identity of an object that it had none for, or was another one's.
Result<void> renewIdentity(ObjectRow& row, const ObjectIdentity& seen, bool needsFresh,
                           IdentityStore& store) {
    // A row that has a file ID is of another object: the number is used up for this one.
    needsFresh |= row.fileID != 0 || row.inode == 0 || row.inode >= firstFreshFileID;
    row.fileID = row.inode;
    row.generation = seen.generation;
    row.documentID = 0;
    if (!needsFresh) return {};
    const auto fresh = store.allocate(Counter::File);
    if (!fresh) return std::unexpected(fresh.error());
    row.fileID = *fresh;
    return {};
}

Result<void> addDocumentID(ObjectRow& row, IdentityStore& store) {
    const auto document = store.allocate(Counter::Document);
    if (!document) return std::unexpected(document.error());
    row.documentID = static_cast<std::uint32_t>(*document);
    return {};
}

}  // namespace

VolumeService::State::State(Configuration given)
    : configuration(std::move(given)), follower(std::make_unique<Follower>(*this)) {}

VolumeService::State::~State() = default;

EventRecord gapRecord(std::string path) {
    EventRecord gap;
    gap.event.flags = fsEventKernelDropped | fsEventMustScanSubDirs;
    gap.event.path = std::move(path);
    return gap;
}

void VolumeService::State::addRoot(const ObjectIdentity& identity, const QSURL& url) {
    const std::unique_lock lock(indexMutex);
    const auto node = index.ensure(identity.inode);
    index.setGeneration(node, identity.generation);
    index.setRoot(node, true);
    index.setRootPath(node, url.path());
    roots.push_back({node, url});
}

ObjectIndex::NodeNumber VolumeService::State::rootAt(const QSURL& url) const {
    const auto root = std::ranges::find(roots, url, &Root::url);
    if (root != roots.end()) return root->node;
    const auto former = index.formerRoots();
    const auto found =
        std::ranges::find_if(former, [&](auto node) { return index.rootPath(node) == url.path(); });
    return found == former.end() ? ObjectIndex::none : *found;
}

std::optional<QSURL> VolumeService::State::urlOf(ObjectIndex::NodeNumber number) const {
    const auto path = index.path(number);
    if (!path) return std::nullopt;
    const auto root = std::ranges::find(roots, path->root, &Root::node);
    if (root == roots.end()) return std::nullopt;
    return QSURL::fileURLWithPath(root->url.path() + "/" + path->below);
}

std::vector<QSURL> VolumeService::State::urlsOf(ObjectIndex::NodeNumber number) const {
    std::vector<QSURL> urls;
    if (index.node(number).isRoot) {
        if (auto url = urlOf(number)) urls.push_back(std::move(*url));
    }
    index.forEachName(number, [&](ObjectIndex::EntryNumber at) {
        const auto& entry = index.entry(at);
        const auto folder = urlOf(entry.folder);
        if (folder) urls.push_back(folder->URLByAppendingPathComponent(index.name(entry)));
    });
    return urls;
}

Result<VolumeService::State::Located> VolumeService::State::locate(std::uint64_t fileID) const {
    Located located;
    ObjectIndex::Node node;
    std::vector<QSURL> urls;
    {
        const std::shared_lock lock(indexMutex);
        const auto number = index.findFileID(fileID);
        if (number == ObjectIndex::none) return located;
        node = index.node(number);
        urls = urlsOf(number);
        located.isMissing = isMissing(number);
    }
    if (node.fileID == 0 && freshOnly) return Located{};
    const auto* preferred = PreferredPlace::ofObject(node.inode);
    if (preferred) urls = {QSURL::fileURLWithPath(preferred->path())};
    std::optional<QSError> failure;
    for (const auto& url : urls) {
        const auto attributes = configuration.files.attributes(url);
        if (!attributes) {
            const bool isMissingThere = lookFailureOf(attributes.error()) == LookFailure::Missing;
            if (!isMissingThere) failure = attributes.error();
            continue;
        }
        const auto& identity = (*attributes)->identity;
        if (identity.inode == node.inode &&
            (node.fileID == 0 || identity.generation == node.generation)) {
            located.url = url;
            return located;
        }
    }
    if (failure) return std::unexpected(*std::move(failure));
    // No other place will do for one that is preferred.
    if (preferred) return Located{};
    for (const auto& url : urls) {
        located.missedIn.push_back(url.URLByDeletingLastPathComponent().path());
    }
    return located;
}

bool VolumeService::State::isMissing(ObjectIndex::NodeNumber number) const {
    const auto& top = index.node(index.top(number));
    return !top.isRoot && top.firstName == ObjectIndex::none && top.isDeferred;
}

ObjectIndex::NodeNumber VolumeService::State::missingObjectOf(const FSEvent& event) const {
    const std::shared_lock lock(indexMutex);
    const auto number = event.identifierKind == IdentifierKind::Document
                            ? index.findDocumentID(event.documentID)
                            : index.findFileID(event.fileID);
    return number != ObjectIndex::none && isMissing(number) ? number : ObjectIndex::none;
}

std::optional<QSURL> VolumeService::State::placeOf(const IdentityRequest& request) const {
    if (!hasPlace(request)) return std::nullopt;
    const std::shared_lock lock(indexMutex);
    const auto number = index.findInode(request.object->parent.inode);
    const auto folder = number == ObjectIndex::none ? std::nullopt : urlOf(number);
    if (!folder) return std::nullopt;
    return folder->URLByAppendingPathComponent(request.name);
}

bool VolumeService::State::isThere(const IdentityRequest& request) const {
    if (!hasPlace(request)) return true;
    const auto isAt = [&](const QSURL& url) {
        const auto now = configuration.files.freshAttributes(url);
        return now && (*now)->identity == request.object->identity;
    };
    const auto place = placeOf(request);
    if (place && isAt(*place)) return true;
    // It may have moved on; or the object that has its number now is there.
    std::optional<QSURL> indexed;
    {
        const std::shared_lock lock(indexMutex);
        const auto number = index.findInode(request.object->identity.inode);
        if (number != ObjectIndex::none) indexed = urlOf(number);
    }
    return indexed ? isAt(*indexed) : !place;
}

bool VolumeService::State::answerFromIndex(std::span<IdentityRequest> requests) const {
    const std::shared_lock lock(indexMutex);
    for (auto& request : requests) {
        const auto& identity = request.object->identity;
        const auto number = index.findInode(identity.inode);
        if (number == ObjectIndex::none) return false;
        const auto& node = index.node(number);
        if (node.fileID == 0 || node.generation != identity.generation ||
            (request.wantsDocumentID && node.documentID == 0) || node.hasNewNumbers) {
            return false;
        }
        request.result = {node.fileID, request.wantsDocumentID ? node.documentID : 0};
    }
    return true;
}

bool VolumeService::State::hasUnstored(std::span<const IdentityRequest> requests) const {
    const std::shared_lock lock(indexMutex);
    return std::ranges::any_of(requests, [&](const IdentityRequest& request) {
        const auto number = index.findInode(request.object->identity.inode);
        return number != ObjectIndex::none && index.node(number).hasNewNumbers;
    });
}

bool VolumeService::State::needsDecision(std::span<const IdentityRequest> requests) const {
    const bool isFollowed = follower->isCaughtUp();
    const std::shared_lock lock(indexMutex);
    return std::ranges::any_of(requests, [&](const IdentityRequest& request) {
        const auto& identity = request.object->identity;
        const auto number = index.findInode(identity.inode);
        const bool isKnown = number != ObjectIndex::none && index.node(number).fileID != 0;
        const bool isUndecided = number != ObjectIndex::none && index.node(number).isUndecided;
        if (isKnown && index.node(number).generation != identity.generation) return true;
        if (isUndecided && (isKnown || request.wantsDocumentID)) return true;
        if (!request.wantsDocumentID || !hasPlace(request)) return false;
        const auto there =
            index.findObject(index.findInode(request.object->parent.inode), request.name);
        const bool isAsKnown = there == number && number != ObjectIndex::none;
        const bool hasDocument = isKnown && index.node(number).documentID != 0;
        // While following, any new object may be the replacement of one just removed.
        if (isFollowed) return !isAsKnown;
        const bool isAtOtherPlace =
            there != ObjectIndex::none && !isAsKnown && index.node(there).documentID != 0;
        const bool hasMoved =
            hasDocument && !isAsKnown && index.node(number).firstName != ObjectIndex::none;
        return isAtOtherPlace || hasMoved;
    });
}

Result<std::uint64_t> VolumeService::State::newFileID(std::uint64_t inode) {
    if (!freshOnly && inode != 0 && inode < firstFreshFileID) return inode;
    return store->allocate(Counter::File);
}

Result<void> VolumeService::State::write(std::span<const ObjectRow> rows, bool isDurable,
                                         std::vector<EventRecord>& events,
                                         std::span<const UnownedChange> unowned) {
    // Never commit a row before the event that explains it.
    if (!unwritten.empty()) {
        unwritten.insert(unwritten.end(), std::make_move_iterator(events.begin()),
                         std::make_move_iterator(events.end()));
        events = std::exchange(unwritten, {});
    }
    auto done = confirm();
    if (done) storeTrash();
    if (done && rows.empty() && events.empty() && !isDurable) return done;
    if (done) {
        if (!events.empty()) datesOf(events);
        done = store->commit(rows,
                             isDurable || !events.empty() ? IdentityStore::Durability::Identities
                                                          : IdentityStore::Durability::Hints,
                             events, unowned);
        if (done) return confirm();
    }
    unwritten = std::move(events);
    if (unwritten.size() <= mostUnwritten) return done;
    lastGap = "events could not be written; " + done.error().description();
    unwritten.clear();
    const std::shared_lock lock(indexMutex);
    for (const auto& root : roots) unwritten.push_back(gapRecord(root.url.path()));
    return done;
}

Result<void> VolumeService::State::confirm() {
    const auto before = store->lastEvent();
    auto done = store->confirm();
    if (store->lastEvent() != before) hasEvents = true;
    if (done && store->popFolderWitnessDue()) folderWitnessIsDue = true;
    return done;
}

void VolumeService::State::datesOf(std::vector<EventRecord>& events) {
    const auto now = clock->stamp().seconds;
    for (auto& record : events) {
        if (record.time == 0) record.time = now;
    }
    const auto dateForAge = [&](std::chrono::seconds age) {
        const auto limit = clock->limitForAge(age).safe;
        return limit ? std::optional(limit->seconds) : std::nullopt;
    };
    const auto age = configuration.eventAge;
    store->retention.old = dateForAge(age);
    store->retention.tooOld = dateForAge(age * 11 / 10);
}

FSEvent VolumeService::State::present(EventRecord record) const {
    if (record.folder == 0) return std::move(record.event);
    const std::shared_lock lock(indexMutex);
    const auto folder = index.findInode(record.folder);
    if (folder == ObjectIndex::none || index.node(folder).generation != record.folderGeneration) {
        return std::move(record.event);
    }
    if (const auto url = urlOf(folder)) {
        auto& path = record.event.path;
        path = url->path() + path.substr(path.rfind('/'));
    }
    return std::move(record.event);
}

void VolumeService::State::requestRechecks(std::span<const IdentityRequest> requests) {
    const bool isFollowed = follower->isFollowing();
    std::vector<Recheck> found;
    {
        const std::shared_lock lock(indexMutex);
        for (const auto& request : requests) {
            const auto number = index.findInode(request.object->identity.inode);
            if (!hasPlace(request) || number == ObjectIndex::none) continue;
            const auto& node = index.node(number);
            // A place from the request alone, where nothing is or another object.
            const auto folder = index.findInode(request.object->parent.inode);
            const bool isAsKnown = node.stamp != 0 &&
                                   node.generation == request.object->identity.generation &&
                                   index.findObject(folder, request.name) == number;
            if (node.firstName != ObjectIndex::none && (isAsKnown || !isFollowed)) continue;
            found.push_back({request.object->parent.inode, std::string(request.name),
                             request.object->identity, request.object->kind(), request.result});
        }
    }
    if (found.empty()) return;
    {
        const std::scoped_lock lock(rechecksMutex);
        rechecks.insert(rechecks.end(), std::make_move_iterator(found.begin()),
                        std::make_move_iterator(found.end()));
    }
    follower->wake();
}

std::vector<VolumeService::State::Recheck> VolumeService::State::popRechecks() {
    const std::scoped_lock lock(rechecksMutex);
    return std::exchange(rechecks, {});
}

bool VolumeService::State::isRemoving(const ObjectIndex::Node& object) {
    const std::scoped_lock lock(removalsMutex);
    return removing.contains({object.inode, object.generation});
}

std::vector<ObjectIdentity> VolumeService::State::removedObjects() {
    const std::scoped_lock lock(removalsMutex);
    return std::exchange(removed, {});
}

std::vector<ObjectIdentity> VolumeService::State::movedObjects() {
    const std::scoped_lock lock(removalsMutex);
    return std::exchange(moved, {});
}

void VolumeService::State::forgetRemovals(std::span<const ObjectIdentity> objects) {
    const std::scoped_lock lock(removalsMutex);
    for (const auto& object : objects) {
        removing.erase(removing.find({object.inode, object.generation}));
    }
}

void VolumeService::State::setStorageTrouble(const std::optional<QSError>& now) {
    const std::unique_lock lock(indexMutex);
    storageTrouble = now;
}

void VolumeService::State::announce() {
    if (!hasEvents.exchange(false)) return;
    std::vector<std::shared_ptr<Subscriber>> reached;
    {
        const std::scoped_lock lock(subscribersMutex);
        std::erase_if(subscribers, [](const auto& subscriber) { return subscriber.expired(); });
        for (const auto& subscriber : subscribers) {
            if (auto alive = subscriber.lock()) reached.push_back(std::move(alive));
        }
    }
    const auto age = std::chrono::steady_clock::now() - lookingSince.load();
    for (const auto& subscriber : reached) {
        const std::scoped_lock lock(subscriber->mutex);
        if (subscriber->listener) subscriber->listener(age);
    }
}

Result<VolumeService::Identity> VolumeService::State::assignIdentity(const IdentityRequest& request,
                                                                     StagedRow& staged) {
    const auto& seen = request.object->identity;
    const bool isKnown = staged.row.fileID != 0 && staged.row.generation == seen.generation;
    // Of two objects that had the number, the one whose attributes are older may be asked for last;
    // it was removed, and must not get the row of its replacement.
    const bool isOther = staged.row.generation != seen.generation &&
                         (staged.row.fileID != 0 ||
                          (staged.row.stamp != 0 && staged.row.stamp != stampOf(*request.object)));
    const bool isRemoved = isOther && !isThere(request);
    ObjectRow passing = staged.row;
    auto& row = isRemoved ? passing : staged.row;
    if (!isKnown) {
        if (auto done = renewIdentity(row, seen, freshOnly || isRemoved, *store); !done) {
            return std::unexpected(std::move(done.error()));
        }
    }
    const bool needsDocument = request.wantsDocumentID && row.documentID == 0;
    if (needsDocument) {
        if (auto done = addDocumentID(row, *store); !done) {
            return std::unexpected(std::move(done.error()));
        }
    }
    if (!isRemoved) {
        staged.isChanged |= !isKnown || needsDocument;
        row.kind = request.object->kind();
        if (hasPlace(request)) staged.request = &request;
    }
    return Identity{row.fileID, request.wantsDocumentID ? row.documentID : 0};
}

Result<void> VolumeService::State::allocate(std::span<IdentityRequest> requests) {
    const std::scoped_lock storeLock(storeMutex);
    // Two requests may name one object (hard links), so rows are staged by inode.
    std::unordered_map<std::uint64_t, StagedRow> staged;
    {
        const std::shared_lock lock(indexMutex);
        for (const auto& request : requests) {
            const auto inode = request.object->identity.inode;
            const auto [entry, isNew] = staged.try_emplace(inode);
            if (!isNew) continue;
            const auto number = index.findInode(inode);
            if (number != ObjectIndex::none) {
                if (index.node(number).hasNewNumbers) return std::unexpected(errorFromErrno(EIO));
                entry->second.row = index.row(number);
            }
            entry->second.row.inode = inode;
        }
    }
    std::vector<EventRecord> events;
    std::vector<Identity> results;
    results.reserve(requests.size());
    for (const auto& request : requests) {
        auto& entry = staged[request.object->identity.inode];
        const auto before = entry.row;
        const auto settled = assignIdentity(request, entry);
        if (!settled) return std::unexpected(settled.error());
        results.push_back(*settled);
        // The object that had the number was removed unseen.
        if (before.fileID != 0 && before.fileID != entry.row.fileID) {
            noteReplaced(before, request, events);
        }
        // It was removed before it was asked for. Its removal has to be reported to whoever shows
        // it.
        if (settled->fileID != entry.row.fileID) {
            auto former = entry.row;
            former.fileID = settled->fileID;
            former.documentID = settled->documentID;
            noteReplaced(former, request, events);
        }
    }
    const bool recorded = !events.empty();
    std::vector<ObjectRow> rows;
    for (auto& [inode, entry] : staged) {
        if (!entry.isChanged) continue;
        // Also where the index is to hear of it from the disk only: it is looked for there, now or
        // after a restart.
        if (entry.request && entry.row.names.empty()) {
            entry.row.names.push_back(
                {entry.request->object->parent.inode, std::string(entry.request->name)});
        }
        rows.push_back(entry.row);
    }
    if (auto done = write(rows, true, events); !done) return done;
    if (recorded) follower->wake();
    publish(staged);
    captureMetadata(requests);
    for (std::size_t i = 0; i < requests.size(); ++i) requests[i].result = results[i];
    return {};
}

void VolumeService::State::captureMetadata(std::span<const IdentityRequest> requests) {
    for (const auto& request : requests) {
        const auto& object = *request.object;
        const bool hasAny = std::ranges::any_of(configuration.metadataNames, [&](const auto& name) {
            return object.hasAttribute(storedAttributeName(name));
        });
        if (!hasAny || !request.wantsDocumentID) continue;
        const auto place = placeOf(request);
        if (!place) continue;
        auto read =
            readMetadata(configuration.files, *place, object.identity, configuration.metadataNames);
        if (!read) continue;
        const std::unique_lock lock(indexMutex);
        index.setMetadata(index.ensure(object.identity.inode), std::move(*read));
    }
}

void VolumeService::State::noteReplaced(const ObjectRow& former, const IdentityRequest& request,
                                        std::vector<EventRecord>& events) const {
    EventRecord& record = events.emplace_back();
    record.event.flags = fsEventRemoved;
    record.event.fileID = former.fileID;
    record.event.documentID = former.documentID;
    record.event.identifierKind =
        former.documentID != 0 ? IdentifierKind::Document : IdentifierKind::File;
    std::optional<QSURL> place;
    {
        const std::shared_lock lock(indexMutex);
        const auto number = index.findFileID(former.fileID);
        if (number != ObjectIndex::none) place = urlOf(number);
    }
    // Where it is about to be shown, though it was removed. Its folder may be missing too.
    if (!place) place = placeOf(request);
    const auto& storage = configuration.files.storageURL();
    record.event.path = place ? place->path() : storage.path() + "/" + std::string(request.name);
}

void VolumeService::State::publish(const std::unordered_map<std::uint64_t, StagedRow>& staged) {
    const bool isFollowed = follower->isCaughtUp();
    const std::unique_lock lock(indexMutex);
    for (const auto& [inode, entry] : staged) {
        if (!entry.isChanged) continue;
        const auto number = index.ensure(inode);
        index.setIdentity(number, entry.row);
        if (index.node(number).kind != entry.row.kind) {
            index.setState(number, entry.row.kind, index.node(number).stamp, false);
        }
        index.markStored(number);
        if (index.node(number).firstName != ObjectIndex::none || entry.row.names.empty()) continue;
        // Once all is known, what is where is the follower's to say.
        const auto& name = entry.row.names.front();
        const auto folder = index.ensure(name.folder);
        if (!isFollowed && folder != number &&
            index.findEntry(folder, name.name) == ObjectIndex::none) {
            index.addName(number, folder, name.name);
            index.markStored(number);
        } else {
            index.setDeferred(number, true);
        }
    }
}

void VolumeService::State::putBackDirty(std::span<const ObjectIndex::NodeNumber> nodes) {
    const std::unique_lock lock(indexMutex);
    for (const auto number : nodes) index.markDirty(number);
}

}  // namespace platform

#include "platform/volume/Reconciler.h"

#include <algorithm>

#include "platform/volume/Follower.h"

namespace platform {

namespace {

constexpr std::int64_t racySpan = 20'000'000;  // ns; the kernel stamps changes once a timer tick

/// Whether the state may change once more without a change of its times.
bool isRacy(const ObjectState& state) {
    const auto now = QSDate::now();
    const auto seconds = now.seconds - state.change.seconds;
    return seconds < 2 &&
           seconds * 1'000'000'000 + now.nanoseconds - state.change.nanoseconds < racySpan;
}

}  // namespace

void Reconciler::apply(const FolderReading& reading, Occasion occasion, Time now,
                       std::int64_t silentBefore) {
    occasion_ = occasion;
    now_ = now;
    constexpr std::int64_t clockSlack = 2;  // seconds: the coarsest times of files
    silentBefore_ = silentBefore - clockSlack;
    const std::unique_lock lock(state_.indexMutex);
    auto& index = state_.index;
    index.setGeneration(reading.folder, reading.generation);
    for (const auto& sighting : reading.sightings) {
        const auto entry = index.findEntry(reading.folder, sighting.name);
        if (!sighting.state) {
            if (entry != ObjectIndex::none) leave(entry);
            continue;
        }
        if (entry != ObjectIndex::none) {
            const auto object = index.entry(entry).object;
            const auto& node = index.node(object);
            const bool isSame = node.inode == sighting.state->inode &&
                                (node.stamp == 0 || node.kind == sighting.state->kind) &&
                                (sighting.generation == 0 || node.generation == 0 ||
                                 node.generation == sighting.generation);
            if (isSame) {
                notice(reading, sighting, object);
                continue;
            }
            leave(entry);
        }
        arrive(reading, sighting);
    }
    noticeMissing(reading);
    noticeFolder(reading);
}

Reconciler::NodeNumber Reconciler::expect(const VolumeService::State::Recheck& recheck, Time now) {
    const std::unique_lock lock(state_.indexMutex);
    auto& index = state_.index;
    const auto folder = index.findInode(recheck.folder);
    const auto object = index.findInode(recheck.object.inode);
    if (object == ObjectIndex::none) return ObjectIndex::none;
    const auto& node = index.node(object);
    if (node.isRoot) return folder;
    occasion_ = Occasion::Live;
    now_ = now;
    if (node.generation != recheck.object.generation) {
        reportReplaced(recheck, folder);
        return folder;
    }
    if (folder != ObjectIndex::none && index.findObject(folder, recheck.name) == object) {
        return folder;
    }
    const bool isElsewhere = node.firstName != ObjectIndex::none;
    if (isElsewhere) changeOf(object).isModified = true;
    if (folder == ObjectIndex::none) return folder;
    auto place = placeIn(folder, recheck.name, joined(pathOfFolder(folder), recheck.name));
    if (isElsewhere) {
        // If it has moved on since, no other event reports that it left this place.
        record(fsEventMoved | fsEventRemoved, object, std::move(place));
    } else if (!removals_.removal(object)) {
        beginRemoval(object, place);
    }
    return folder;
}

/// The object was removed and its inode number used again before the index had its place.
void Reconciler::reportReplaced(const VolumeService::State::Recheck& recheck, NodeNumber folder) {
    const auto& index = state_.index;
    const auto& storage = state_.roots.front().url.path();
    const auto last =
        placeIn(folder, recheck.name,
                joined(folder == ObjectIndex::none ? storage : pathOfFolder(folder), recheck.name));
    if (auto unowned = unowned_.remove(recheck.identity.documentID)) {
        if (unowned->removal.last.path.empty()) unowned->removal.last = last;
        const auto& added = unowned_.add(*std::move(unowned));
        unownedChanges_.push_back({added.documentID, rowOf(added)});
        return;
    }
    const bool isKnown = index.findFileID(recheck.identity.fileID) != ObjectIndex::none ||
                         (recheck.identity.documentID != 0 &&
                          index.findDocumentID(recheck.identity.documentID) != ObjectIndex::none);
    if (isKnown) return;
    ObjectIndex::Node former;
    former.fileID = recheck.identity.fileID;
    former.documentID = recheck.identity.documentID;
    former.kind = recheck.kind;
    recordRemoval(fsEventRemoved, former, last);
}

void Reconciler::removed(const ObjectIdentity& identity, Time now) {
    occasion_ = Occasion::Live;
    now_ = now;
    NodeNumber object = ObjectIndex::none;
    {
        const std::unique_lock lock(state_.indexMutex);
        auto& index = state_.index;
        object = index.findInode(identity.inode);
        if (object == ObjectIndex::none) return;
        const auto& node = index.node(object);
        if (node.generation != identity.generation || node.isRoot) return;
        index.forEachName(object, [&](auto at) { leave(at); });
        const auto change = std::exchange(changeOf(object), {});
        if (!removals_.removal(object)) {
            if (change.left.empty()) return;
            beginRemoval(object, recordAllButFirst(object, change.left));
        }
    }
    finish(object);
}

void Reconciler::restoreUndecided(Time now) {
    const std::unique_lock lock(state_.indexMutex);
    occasion_ = Occasion::Scan;
    now_ = now;
    unownedToRestore_ = state_.store->popUnowned();
    conflictsToResolve_ = state_.index.popConflicts();
    restore(ObjectIndex::none);
}

void Reconciler::restore(NodeNumber root) {
    auto& index = state_.index;
    // What is below a root of the last run waits until that is attached or detached: nothing can be
    // said of what is there before.
    const auto waits = [&](NodeNumber folder) {
        if (folder == ObjectIndex::none) return false;
        const auto top = index.top(folder);
        return top != root && !index.node(top).isRoot && !index.rootPath(top).empty();
    };
    for (const auto& row : std::exchange(unownedToRestore_, {})) {
        const auto folder = row.folder == 0 ? ObjectIndex::none : index.ensure(row.folder);
        const auto vacated =
            row.vacatedFolder == 0 ? ObjectIndex::none : index.ensure(row.vacatedFolder);
        if (waits(folder) || waits(vacated)) {
            unownedToRestore_.push_back(row);
            continue;
        }
        ObjectIndex::Node node;
        node.inode = row.inode;
        node.fileID = row.fileID;
        node.documentID = row.documentID;
        node.kind = row.kind;
        const auto last = placeIn(folder, row.path.substr(row.path.rfind('/') + 1), row.path);
        if (vacated != ObjectIndex::none) {
            const auto place = placeIn(vacated, row.vacatedName, row.path);
            vacate(row.documentID,
                   {ObjectIndex::none, row.fileID, row.kind, place, {}, now_, isPast(), false});
        }
        unowned_.add({row.documentID, node, {last, now_, isPast()}});
    }
    for (auto& conflict : std::exchange(conflictsToResolve_, {})) {
        const auto& [object, folder, name] = conflict;
        if (waits(folder)) {
            conflictsToResolve_.push_back(std::move(conflict));
            continue;
        }
        index.markDirty(object);  // or the next run would ask once more
        const auto& node = index.node(object);
        const bool isNowhere = node.firstName == ObjectIndex::none;
        if (folder == ObjectIndex::none) {
            if (isNowhere)
                beginRemoval(object, placeIn(folder, name.substr(name.rfind('/') + 1), name));
            continue;
        }
        const auto place = placeIn(folder, name, joined(pathOfFolder(folder), name));
        if (node.documentID != 0) {
            vacate(node.documentID, {object, node.fileID, node.kind, place, index.metadata(object),
                                     now_, isPast(), false});
        }
        if (isNowhere) {
            beginRemoval(object, place);
        } else {
            // Another row has the name, so that no comparison finds it missing.
            record(fsEventMoved | fsEventRemoved, object, place);
        }
    }
}

void Reconciler::leaveLostFolders(Time now) {
    const std::unique_lock lock(state_.indexMutex);
    occasion_ = Occasion::Scan;
    now_ = now;
    for (const auto entry : state_.index.entriesInNoFolder()) {
        const auto holder = state_.index.entry(entry).folder;
        const bool isFolder = state_.index.node(holder).kind == ObjectKind::Directory;
        // The entries of a missing folder are removed or come back with it.
        if (!isFolder || !removals_.removal(holder)) leave(entry);
    }
}

void Reconciler::noticeMissing(const FolderReading& reading) {
    if (!reading.names) return;
    auto& index = state_.index;
    index.setListed(reading.folder, !reading.trouble);
    if (!reading.trouble && index.metadata(reading.folder).starts_with(unreadableMark)) {
        index.setMetadata(reading.folder, {});
    }
    std::vector<ObjectIndex::EntryNumber> missing;
    index.forEachChild(reading.folder, [&](ObjectIndex::EntryNumber entry) {
        const auto name = index.name(index.entry(entry));
        if (!std::ranges::binary_search(*reading.names, name, std::less<std::string_view>{})) {
            missing.push_back(entry);
        }
    });
    for (const auto entry : missing) leave(entry);
}

void Reconciler::noticeFolder(const FolderReading& reading) {
    const auto& node = state_.index.node(reading.folder);
    if (node.stamp == reading.own.stamp) return;
    if (!isSilent(reading, reading.own)) changeOf(reading.folder).isModified = true;
    // That the storage folder's own state is known stands for the whole first scan.
    const bool isStorage = reading.folder == state_.roots.front().node;
    if (reading.isPart || (isStorage && node.stamp == 0)) return;
    setState(reading.folder, reading.own);
}

void Reconciler::rememberScan(NodeNumber root, const ObjectState& own) {
    const std::unique_lock lock(state_.indexMutex);
    setState(root, own);
    reportedFolders_.clear();
}

/// Whether what is seen now happened before this run. Else a save may be under way, also where a
/// comparison finds its first half.
bool Reconciler::isPast() const {
    return occasion_ != Occasion::Live && !state_.follower->isCaughtUp();
}

Reconciler::Change& Reconciler::changeOf(NodeNumber node) {
    const auto [found, isNew] = changes_.try_emplace(node);
    if (isNew) changedInOrder_.push_back(node);
    return found->second;
}

void Reconciler::setState(NodeNumber node, const ObjectState& state) {
    state_.index.setState(node, state.kind, state.stamp, isRacy(state));
}

/// Of an object seen in its folder: what it holds itself is looked at later.
void Reconciler::setStateSeenAbove(NodeNumber node, const ObjectState& state) {
    if (state_.index.node(node).stamp != state.stamp) state_.index.setListed(node, false);
    setState(node, state);
}

bool Reconciler::isSilent(const FolderReading& reading, const ObjectState& state) const {
    return occasion_ == Occasion::FirstScan && state.change.seconds < silentBefore_ &&
           !reportedFolders_.contains(reading.folder);
}

/// Whether an object that had its number was distinguished only after this look, for which it
/// did not matter yet. Then one more is needed.
bool Reconciler::isUnsure(const FolderReading& reading, const Sighting& sighting,
                          const ObjectIndex::Node& node) {
    if (sighting.generation != 0 || node.generation == 0) return false;
    unsureNames_.emplace_back(reading.folder, sighting.name);
    return true;
}

void Reconciler::notice(const FolderReading& reading, const Sighting& sighting, NodeNumber object) {
    auto& index = state_.index;
    const auto& node = index.node(object);
    if (isUnsure(reading, sighting, node)) return;
    const bool isFirstLook = node.stamp == 0;
    if (sighting.generation != 0) index.setGeneration(object, sighting.generation);
    setStateSeenAbove(object, *sighting.state);
    if (node.documentID != 0) toCapture_.push_back(object);
    // Also one that changed by itself: it may have become readable.
    if (node.kind == ObjectKind::Directory) newFolders_.push_back(object);
    if (isFirstLook && isSilent(reading, *sighting.state)) return;
    if (isFirstLook && node.kind == ObjectKind::Directory) reportedFolders_.insert(object);
    changeOf(object).isModified = true;
}

/// Where the folder is or, where it or one above it is missing, was last.
std::string Reconciler::pathOfFolder(NodeNumber folder) const {
    if (const auto url = state_.urlOf(folder)) return url->path();
    const auto& index = state_.index;
    std::string below;
    for (int depth = 0; depth < deepest; ++depth) {
        if (const auto* removal = removals_.removal(folder)) return removal->last.path + below;
        if (const auto& root = index.rootPath(folder); !root.empty()) return root + below;
        const auto entry = index.node(folder).firstName;
        if (entry == ObjectIndex::none) {
            const auto change = changes_.find(folder);
            if (change == changes_.end() || change->second.left.empty()) break;
            return change->second.left.front().path + below;
        }
        below = joined("", index.name(index.entry(entry))) + below;
        folder = index.entry(entry).folder;
    }
    return state_.roots.front().url.path() + below;
}

FormerPlace Reconciler::placeOf(ObjectIndex::EntryNumber entry) const {
    const auto& own = state_.index.entry(entry);
    const auto name = state_.index.name(own);
    return placeIn(own.folder, name, joined(pathOfFolder(own.folder), name));
}

FormerPlace Reconciler::placeIn(NodeNumber folder, std::string_view name, std::string path) const {
    const auto generation = folder == ObjectIndex::none ? 0 : state_.index.node(folder).generation;
    return {folder, std::string(name), std::move(path), generation};
}

void Reconciler::leave(ObjectIndex::EntryNumber entry) {
    auto& index = state_.index;
    const auto object = index.entry(entry).object;
    auto place = placeOf(entry);
    hasLeft_ = true;
    index.removeName(entry);
    const auto& node = index.node(object);
    state_.trash.removeWithEntries(place.path, {node.inode, node.generation});
    if (node.documentID != 0) {
        vacate(node.documentID, {object, node.fileID, node.kind, place, index.metadata(object),
                                 now_, isPast(), false});
        if (state_.isRemoving(node)) removals_.vacatedName(node.documentID)->isFinal = true;
    }
    changeOf(place.folder).isModified = true;
    auto& change = changeOf(object);
    const auto came = std::ranges::find_if(change.came, [&](const FormerPlace& other) {
        return other.folder == place.folder && other.name == place.name;
    });
    if (came != change.came.end()) change.came.erase(came);
    change.left.push_back(std::move(place));
}

void Reconciler::vacate(std::uint32_t document, const PendingRemovals::VacatedName& vacatedName) {
    const auto former = removals_.vacate(document, vacatedName);
    if (former != ObjectIndex::none) updateDeferral(former);
    const auto replacement =
        state_.index.findObject(vacatedName.place.folder, vacatedName.place.name);
    if (replacement != ObjectIndex::none) state_.index.setUndecided(replacement, true);
    if (vacatedName.owner == ObjectIndex::none) return;
    state_.index.setUndecided(vacatedName.owner, true);
    updateDeferral(vacatedName.owner);
}

/// While it is open what becomes of an object, its row stays as it was before: so the next run, if
/// this one is killed, finds the same question.
void Reconciler::updateDeferral(NodeNumber node) {
    const auto document = state_.index.node(node).documentID;
    const auto* vacatedName = document == 0 ? nullptr : removals_.vacatedName(document);
    const auto* removal = removals_.removal(node);
    const bool isOwner = vacatedName && vacatedName->owner == node;
    const auto left = removal   ? removal->last.folder
                      : isOwner ? vacatedName->place.folder
                                : ObjectIndex::none;
    state_.index.setDeferred(node, removal || isOwner, left);
}

/// Which identifier it has is open where it has lost a document's name, has taken one, or has the
/// number of an object whose document may go on.
void Reconciler::updateUndecided(NodeNumber node) {
    auto& index = state_.index;
    const auto& object = index.node(node);
    const auto* vacatedName =
        object.documentID == 0 ? nullptr : removals_.vacatedName(object.documentID);
    bool isOpen = vacatedName && vacatedName->owner == node;
    index.forEachName(node, [&](ObjectIndex::EntryNumber at) {
        const auto& entry = index.entry(at);
        isOpen |= removals_.documentThatLeft(entry.folder, index.name(entry)) != 0;
    });
    index.setUndecided(node, isOpen || unowned_.hasInode(object.inode));
}

/// An index that lags behind two moves may have `folder` below `node`: then that link is out of
/// date, since on the disk it is the other way round.
void Reconciler::openCircle(NodeNumber node, NodeNumber folder) {
    const auto& index = state_.index;
    for (int depth = 0; depth < deepest; ++depth) {
        const auto entry = index.node(folder).firstName;
        if (entry == ObjectIndex::none) return;
        folder = index.entry(entry).folder;
        if (folder != node) continue;
        leave(entry);
        return;
    }
}

void Reconciler::arrive(const FolderReading& reading, const Sighting& sighting) {
    auto& index = state_.index;
    const auto& state = *sighting.state;
    const auto object = index.ensure(state.inode);
    if (object == reading.folder) return;
    const auto& node = index.node(object);
    if (isUnsure(reading, sighting, node)) return;
    const bool isOther = (sighting.generation != 0 && node.generation != 0 &&
                          node.generation != sighting.generation) ||
                         (node.stamp != 0 && node.kind != state.kind);
    if (isOther) renew(object, sighting.generation);

    // Back where it was, so that what it leaves now is what counts.
    const auto own = node.documentID;
    const auto* vacated = own == 0 ? nullptr : removals_.vacatedName(own);
    const bool isBack = vacated && vacated->owner == object &&
                        removals_.documentThatLeft(reading.folder, sighting.name) == own;
    if (isBack) removals_.closeVacatedName(own);

    const bool isDirectory = state.kind == ObjectKind::Directory;
    if (isDirectory || state.linkCount == 1) index.forEachName(object, [&](auto at) { leave(at); });
    if (isDirectory) openCircle(object, reading.folder);
    const bool hadNames = node.firstName != ObjectIndex::none;
    const bool isFirstLook = node.stamp == 0;
    auto removal = removals_.popRemoval(object);
    updateDeferral(object);
    const bool isSilentHere = isFirstLook && !removal && isSilent(reading, state);
    if (!isSilentHere) changeOf(reading.folder).isModified = true;

    auto& change = changeOf(object);
    if (isDirectory) newFolders_.push_back(object);
    if (removal) {
        change.left.push_back(std::move(removal->last));
        change.wasMissing = true;
    } else if (!change.left.empty()) {
        // It may have been missing when the last run ended, which is not kept.
        change.wasMissing |= isPast();
    } else if (!hadNames) {
        change.isNew = true;
        constexpr std::size_t mostBirths = 10'000;  // a storm is no save
        if (births_.size() == mostBirths) births_.clear();
        if (occasion_ == Occasion::Live) births_[object] = now_;
        change.isSilent = isSilentHere;
        if (isDirectory && !isSilentHere) reportedFolders_.insert(object);
    }
    change.came.push_back(
        placeIn(reading.folder, sighting.name, joined(reading.url.path(), sighting.name)));
    if (sighting.generation != 0) index.setGeneration(object, sighting.generation);
    if (!isFirstLook && node.stamp != state.stamp) change.isModified = true;
    index.addName(object, reading.folder, sighting.name);
    setStateSeenAbove(object, state);

    if (isBack) {
        updateUndecided(object);
        updateDeferral(object);
        return;
    }
    const auto document = removals_.documentThatLeft(reading.folder, sighting.name);
    if (document == 0) return;
    auto& vacatedName = *removals_.vacatedName(document);
    index.setUndecided(object, true);
    vacatedName.isExchange =
        vacatedName.owner != ObjectIndex::none &&
        std::ranges::any_of(change.left, [&](const FormerPlace& left) {
            return index.findObject(left.folder, left.name) == vacatedName.owner;
        });
}

void Reconciler::renew(NodeNumber object, std::uint64_t generation) {
    auto& index = state_.index;
    // The root of the last run that had the number is not there to be detached.
    if (!index.node(object).isRoot && !index.rootPath(object).empty()) forgetRoot(object);
    index.forEachChild(object, [&](auto at) { leave(at); });
    index.forEachName(object, [&](auto at) { leave(at); });
    for (const auto& [document, owner] : removals_.closeVacatedNamesIn(object)) {
        if (owner != ObjectIndex::none) {
            updateDeferral(owner);
            ownersOfClosedNames_.push_back(owner);
        } else if (const auto* unowned = unowned_.find(document)) {
            unownedChanges_.push_back({document, rowOf(*unowned)});
        }
    }
    const ObjectIndex::Node old = index.node(object);
    const auto removal = removals_.popRemoval(object);
    FormerPlace last;
    if (const auto change = changes_.find(object); change != changes_.end()) {
        const auto left = std::move(change->second.left);
        change->second = {};
        const bool hasIdentifier = old.documentID != 0 || old.fileID != 0;
        if (!left.empty() && hasIdentifier) last = recordAllButFirst(object, left);
    }
    if (removal) last = removal->last;
    // A document may have been shown before the index has a place of it.
    if (old.documentID != 0) {
        disown(old, last);
    } else if (old.fileID != 0 && !last.path.empty()) {
        recordRemoval(fsEventRemoved, old, last);
    }
    if (old.kind == ObjectKind::Directory) removedFolders_.push_back(object);

    ObjectRow identity;
    identity.inode = old.inode;
    identity.generation = generation;
    if (old.fileID != 0) {
        if (const auto fresh = state_.store->allocate(Counter::File)) identity.fileID = *fresh;
        tookNumbers_ = true;
    }
    index.setIdentity(object, identity);
    updateDeferral(object);
    index.setMetadata(object, {});
    index.setState(object, ObjectKind::Other, 0, false);
    index.setListed(object, false);
    index.setUndecided(object, old.documentID != 0);
    index.markDirty(object);
}

void Reconciler::disown(const ObjectIndex::Node& former, const FormerPlace& last) {
    if (auto* vacatedName = removals_.vacatedName(former.documentID))
        vacatedName->owner = ObjectIndex::none;
    const auto& added = unowned_.add({former.documentID, former, {last, now_, isPast()}});
    unownedChanges_.push_back({former.documentID, rowOf(added)});
}

UnownedRow Reconciler::rowOf(const UnownedDocuments::UnownedDocument& unowned) {
    const auto inodeOf = [&](NodeNumber folder) {
        return folder == ObjectIndex::none ? 0 : state_.index.node(folder).inode;
    };
    const auto& [document, former, removal] = unowned;
    const auto& last = removal.last;
    UnownedRow row{document,    former.inode,         former.fileID,
                   former.kind, inodeOf(last.folder), last.path};
    if (const auto* vacatedName = removals_.vacatedName(document)) {
        row.vacatedFolder = inodeOf(vacatedName->place.folder);
        row.vacatedName = vacatedName->place.name;
    }
    return row;
}

void Reconciler::beginRemoval(NodeNumber node, const FormerPlace& last) {
    removals_.beginRemoval(node, {last, now_, isPast()});
    updateDeferral(node);
    expiry_.emplace_back(now_, node);
}

}  // namespace platform

// The reconciler's decisions about removals and about the object that a document ID belongs to.
#include <algorithm>
#include <cerrno>

#include "platform/log/Log.h"
#include "platform/tree/TreeLayout.h"
#include "platform/volume/Reconciler.h"
#include "platform/volume/UserMetadataCopy.h"

namespace platform {

namespace {

using namespace std::chrono_literals;

constexpr auto decisionStep = 50ms;

}  // namespace

std::optional<Reconciler::Time> Reconciler::nextDecision(Time now) const {
    if (!removals_.openDocuments().empty() || !unowned_.isEmpty()) return now + decisionStep;
    if (expiry_.empty()) return std::nullopt;
    return expiry_.front().first + state_.configuration.windows.replacement;
}

SaveVerdict Reconciler::judge(std::uint32_t document, const PendingRemovals::VacatedName& vacated,
                              Time passStart, bool mustDecide) const {
    const auto& windows = state_.configuration.windows;
    std::string ownerName;
    SaveFacts facts{.vacatedName = vacated.place.name,
                    .age = now_ - vacated.at,
                    .isRead = vacated.at < passStart,
                    .isByThisProcess = vacated.isFinal,
                    .isFromScan = vacated.isFromScan,
                    .mustDecide = mustDecide};
    {
        const std::shared_lock lock(state_.indexMutex);
        const auto& index = state_.index;
        if (vacated.owner != ObjectIndex::none) {
            const auto& owner = index.node(vacated.owner);
            if (owner.documentID != document) return SaveVerdict::Keep;
            if (owner.firstName != ObjectIndex::none) {
                const auto place = placeOf(owner.firstName);
                ownerName = place.name;
                facts.ownerName = ownerName;
                facts.isOwnerInTrash =
                    place.folder != vacated.place.folder && isInTrash(pathOfFolder(place.folder));
            }
        }
        const auto number = index.findObject(vacated.place.folder, vacated.place.name);
        if (number != ObjectIndex::none && number != vacated.owner && state_.urlOf(number)) {
            const auto& node = index.node(number);
            const auto born = births_.find(number);
            facts.replacement = {
                .isSameKind = node.kind == vacated.kind,
                // A folder may have been reported by its file ID.
                .hasOwnIdentifier = node.documentID != 0 ||
                                    (node.kind == ObjectKind::Directory && node.fileID != 0),
                .isRecent = born != births_.end() && vacated.at - born->second < windows.rename,
                .isFromOwnersPlace = vacated.isExchange};
        }
    }
    return decideAboutSave(facts, windows);
}

void Reconciler::decide(std::uint32_t document, Time passStart, bool mustDecide) {
    const auto* open = removals_.vacatedName(document);
    if (!open) return;
    const auto vacated = *open;
    const auto verdict = judge(document, vacated, passStart, mustDecide);
    if (verdict == SaveVerdict::Wait) return;
    removals_.closeVacatedName(document);
    auto replacement = ObjectIndex::none;
    {
        const std::unique_lock lock(state_.indexMutex);
        replacement = state_.index.findObject(vacated.place.folder, vacated.place.name);
        for (const auto node : {vacated.owner, replacement}) {
            if (node == ObjectIndex::none) continue;
            updateUndecided(node);
            updateDeferral(node);
        }
    }
    if (verdict == SaveVerdict::Move) moveDocument(document, vacated, replacement);
    // With that it is decided what became of an object whose number is another's, whose row waits.
    finishUnowned({document});
}

void Reconciler::moveDocument(std::uint32_t document, const PendingRemovals::VacatedName& vacated,
                              NodeNumber replacement) {
    std::optional<QSURL> url;
    {
        const std::shared_lock lock(state_.indexMutex);
        url = state_.urlOf(replacement);
    }
    const auto attributes = url ? state_.configuration.files.freshAttributes(*url)
                                : std::unexpected(errorFromErrno(ENOENT));
    {
        const std::unique_lock lock(state_.indexMutex);
        auto& index = state_.index;
        auto row = index.row(replacement);
        // Another object stands there: the kernel will report it, and that is a save of its own.
        if (!attributes || (*attributes)->identity.inode != row.inode ||
            (row.generation != 0 && row.generation != (*attributes)->identity.generation)) {
            return;
        }
        row.generation = (*attributes)->identity.generation;
        if (row.fileID == 0) {
            const auto fileID = state_.newFileID(row.inode);
            if (!fileID) return;
            row.fileID = *fileID;
            tookNumbers_ = true;
        }
        row.documentID = document;
        if (vacated.owner != ObjectIndex::none) {
            // With several names, the last one may have been in another folder.
            const auto* removal = removals_.removal(vacated.owner);
            if (removal && removal->last.path != vacated.place.path) {
                record(fsEventMoved | fsEventRemoved, vacated.owner, removal->last);
            }
            auto owner = index.row(vacated.owner);
            owner.documentID = 0;
            index.setIdentity(vacated.owner, owner);
            index.markDirty(vacated.owner);
            // Also of a removed owner: no two rows may name the document.
            index.setDeferred(vacated.owner, false);
            index.setMetadata(vacated.owner, {});
            index.forEachName(vacated.owner, [&](ObjectIndex::EntryNumber at) {
                record(fsEventModified, vacated.owner, placeOf(at).path, index.entry(at).folder);
            });
        }
        index.setIdentity(replacement, row);
        index.markDirty(replacement);
        auto& moved = events_.emplace_back();
        moved.event.flags = fsEventDocumentIDChanged;
        moved.event.fileID = row.fileID;
        moved.event.documentID = document;
        moved.event.identifierKind = IdentifierKind::Document;
        moved.event.path = "/.docid/" + std::to_string(state_.device) + "/changed/" +
                           std::to_string(document) + "/src=" + std::to_string(vacated.fileID) +
                           ",dst=" + std::to_string(row.fileID);
        index.forEachName(replacement, [&](ObjectIndex::EntryNumber at) {
            // Under a hidden name, a modification concerns no client, but a document that leaves
            // the places that clients see does.
            const auto& entry = index.entry(at);
            const auto flags = isHiddenName(index.name(entry)) ? fsEventMoved : fsEventModified;
            record(flags, replacement, placeOf(at).path, entry.folder);
        });
    }
    Log::platformLog().write(LogLevel::Debug, [&] {
        return "document " + std::to_string(document) + " goes on in \"" +
               state_.configuration.files.nativePath(*url) + "\"";
    });
    if (!vacated.metadata.empty()) {
        inheritMetadata(vacated.metadata, *url, (*attributes)->identity);
    }
    toCapture_.push_back(replacement);
}

void Reconciler::inheritMetadata(const std::string& metadata, const QSURL& url,
                                 const ObjectIdentity& replacement) {
    const auto done = applyMetadata(state_.configuration.files, url, replacement, metadata,
                                    state_.configuration.metadataNames);
    if (done) return;
    Log::platformLog().write(LogLevel::Error, [&] {
        return "can't carry user metadata over to \"" + state_.configuration.files.nativePath(url) +
               "\"; " + done.error().description();
    });
}

void Reconciler::captureMetadata() {
    for (const auto node : std::exchange(toCapture_, {})) {
        std::optional<QSURL> url;
        ObjectIdentity identity;
        {
            const std::shared_lock lock(state_.indexMutex);
            url = state_.urlOf(node);
            identity = {state_.index.node(node).inode, state_.index.node(node).generation};
        }
        if (!url) continue;
        auto read = readMetadata(state_.configuration.files, *url, identity,
                                 state_.configuration.metadataNames);
        if (!read) continue;
        const std::unique_lock lock(state_.indexMutex);
        state_.index.setMetadata(node, std::move(*read));
    }
}

void Reconciler::decideDue(Time now, Time passStart) {
    now_ = now;
    occasion_ = Occasion::Live;
    for (const auto document : removals_.openDocuments()) decide(document, passStart, false);
    // An exchange is decided within the window, so what is older than two is too old for it.
    std::erase_if(births_, [&](const auto& birth) {
        return birth.second + 2 * state_.configuration.windows.rename < now;
    });
    const auto window = state_.configuration.windows.replacement;
    while (!expiry_.empty() && expiry_.front().first + window <= now) {
        const auto [at, node] = expiry_.front();
        expiry_.pop_front();
        const auto* removal = removals_.removal(node);
        if (removal && removal->at == at) finish(node);
    }
    finishUnowned(unowned_.removedUntil(now - window));
}

void Reconciler::decideAfterScan(Time now) {
    now_ = now;
    for (const auto document : removals_.openDocuments()) {
        if (removals_.vacatedName(document)->isFromScan) decide(document, now, true);
    }
    for (const auto node : removals_.pendingNodes()) {
        if (removals_.removal(node)->isFromScan) finish(node);
    }
    auto unowned = unowned_.all();
    std::erase_if(unowned,
                  [&](auto document) { return !unowned_.find(document)->removal.isFromScan; });
    finishUnowned(unowned);
}

void Reconciler::decideFor(std::span<const VolumeService::IdentityRequest> requests, Time now) {
    now_ = now;
    occasion_ = Occasion::Live;
    std::vector<std::uint32_t> documents;
    {
        const std::shared_lock lock(state_.indexMutex);
        const auto& index = state_.index;
        for (const auto& request : requests) {
            const auto folder = index.findInode(request.object->parent.inode);
            if (const auto left = removals_.documentThatLeft(folder, request.name)) {
                documents.push_back(left);
            }
            const auto node = index.findInode(request.object->identity.inode);
            if (node != ObjectIndex::none && index.node(node).documentID != 0) {
                documents.push_back(index.node(node).documentID);
            }
        }
    }
    for (const auto& request : requests) renewFor(request);
    for (const auto document : documents) decide(document, now, true);
    for (const auto& request : requests) {
        finishUnowned(unowned_.withInode(request.object->identity.inode));
    }
}

bool Reconciler::hasOnlyMoved(const VolumeService::IdentityRequest& request) const {
    const std::shared_lock lock(state_.indexMutex);
    const auto& index = state_.index;
    const auto number = index.findInode(request.object->identity.inode);
    const auto folder = index.findInode(request.object->parent.inode);
    if (number == ObjectIndex::none || folder == ObjectIndex::none || request.name.empty() ||
        index.node(number).generation != request.object->identity.generation ||
        unowned_.hasInode(request.object->identity.inode) ||
        removals_.documentThatLeft(folder, request.name) != 0) {
        return false;
    }
    const auto there = index.findObject(folder, request.name);
    if (there != ObjectIndex::none && there != number) return false;
    const auto isMissing = [&](const QSURL& url) {
        const auto now = state_.configuration.files.freshAttributes(url);
        return !now && now.error().code == ENOENT;
    };
    const auto document = index.node(number).documentID;
    const auto* vacated = document == 0 ? nullptr : removals_.vacatedName(document);
    if (vacated &&
        (vacated->owner != number || !isMissing(QSURL::fileURLWithPath(vacated->place.path)))) {
        return false;
    }
    return there == number || std::ranges::all_of(state_.urlsOf(number), isMissing);
}

void Reconciler::decideAbout(std::uint32_t document, Time now) {
    now_ = now;
    occasion_ = Occasion::Live;
    decide(document, now, true);
}

std::optional<QSURL> Reconciler::lastPlaceOf(NodeNumber object) const {
    const std::shared_lock lock(state_.indexMutex);
    const auto& index = state_.index;
    if (!removals_.removal(index.top(object))) return std::nullopt;
    if (const auto* own = removals_.removal(object)) {
        return QSURL::fileURLWithPath(joined(pathOfFolder(own->last.folder), own->last.name));
    }
    const auto& entry = index.entry(index.node(object).firstName);
    return QSURL::fileURLWithPath(joined(pathOfFolder(entry.folder), index.name(entry)));
}

/// If the request's object has the inode number of another, that one was removed, with its
/// entries.
void Reconciler::renewFor(const VolumeService::IdentityRequest& request) {
    const auto& seen = request.object->identity;
    const auto replaced = [&] {
        const auto node = state_.index.findInode(seen.inode);
        if (node == ObjectIndex::none || seen.generation == 0) return ObjectIndex::none;
        const auto known = state_.index.node(node).generation;
        return known == 0 || known == seen.generation ? ObjectIndex::none : node;
    };
    {
        const std::shared_lock lock(state_.indexMutex);
        if (replaced() == ObjectIndex::none) return;
    }
    if (!state_.isThere(request)) return;
    const std::unique_lock lock(state_.indexMutex);
    if (const auto node = replaced(); node != ObjectIndex::none) renew(node, seen.generation);
}

void Reconciler::finish(NodeNumber node) {
    if (const auto document = state_.index.node(node).documentID; document != 0) {
        decide(document, now_, true);
    }
    const auto removal = removals_.popRemoval(node);
    const std::unique_lock lock(state_.indexMutex);
    auto& index = state_.index;
    updateDeferral(node);
    if (!removal || index.node(node).firstName != ObjectIndex::none) return;
    recordRemoval(fsEventRemoved, index.node(node), removal->last);
    updateUndecided(node);
    if (index.node(node).kind != ObjectKind::Directory) return;
    removedFolders_.push_back(node);
    forgetBelow(node, removal->last.path);
}

void Reconciler::finishUnowned(const std::vector<std::uint32_t>& documents) {
    for (const auto document : documents) {
        const auto unowned = unowned_.remove(document);
        if (!unowned) continue;
        decide(document, now_, true);
        const std::unique_lock lock(state_.indexMutex);
        const auto node = state_.index.findInode(unowned->node.inode);
        if (node != ObjectIndex::none) updateUndecided(node);
        unownedChanges_.push_back({document, std::nullopt});
        // It may go on in another object; what was shown as a folder does not.
        const auto& last = unowned->removal.last;
        const auto replacement = state_.index.findDocumentID(document);
        if (replacement == ObjectIndex::none || !isDocument(unowned->node, last.path)) {
            recordRemoval(fsEventRemoved, unowned->node, last);
        } else if (!last.path.empty() &&
                   state_.index.findObject(last.folder, last.name) != replacement) {
            recordRemoval(fsEventMoved | fsEventRemoved, unowned->node, last);
        }
    }
}

void Reconciler::forgetBelow(NodeNumber folder, std::string path) {
    auto& index = state_.index;
    std::unordered_set<NodeNumber> linked;  // that had another name when they lost one
    std::vector<std::pair<NodeNumber, std::string>> folders;
    folders.emplace_back(folder, std::move(path));
    while (!folders.empty()) {
        const auto [holder, below] = std::move(folders.back());
        folders.pop_back();
        index.forEachChild(holder, [&](ObjectIndex::EntryNumber at) {
            const auto object = index.entry(at).object;
            const auto name = index.name(index.entry(at));
            auto place = placeIn(holder, name, joined(below, name));
            index.removeName(at);
            const auto& node = index.node(object);
            if (node.firstName != ObjectIndex::none) {
                linked.insert(object);
                record(fsEventMoved | fsEventRemoved, object, std::move(place));
                return;
            }
            recordRemoval(fsEventRemoved, node, place);
            if (node.kind != ObjectKind::Directory) return;
            removedFolders_.push_back(object);
            folders.emplace_back(object, std::move(place.path));
        });
    }
    for (const auto object : linked) {
        index.forEachName(object, [&](ObjectIndex::EntryNumber other) {
            record(fsEventModified, object, placeOf(other).path, index.entry(other).folder);
        });
    }
}

}  // namespace platform

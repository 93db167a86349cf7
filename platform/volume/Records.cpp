// What the reconciler writes: the events of all changes, and one commit of them.
#include <algorithm>

#include "platform/tree/PathRelation.h"
#include "platform/tree/TreeLayout.h"
#include "platform/volume/Reconciler.h"

namespace platform {

std::string Reconciler::coverOfPath(const std::string& path) const {
    for (const auto& root : state_.roots) {
        const auto relative = relativePath(path, root.url.path());
        if (!relative || relative->empty()) continue;
        return placementKey(root.url.path(), *relative, state_.configuration.isPackageName);
    }
    return {};
}

/// Whether the folder or one above it has moved too, so that a path in it may not be where things
/// were shown before.
bool Reconciler::isAboveMoved(NodeNumber folder) const {
    for (int depth = 0; folder != ObjectIndex::none && depth < deepest; ++depth) {
        const auto change = changes_.find(folder);
        if (change != changes_.end() && !change->second.left.empty()) return true;
        const auto entry = state_.index.node(folder).firstName;
        if (entry == ObjectIndex::none) break;
        folder = state_.index.entry(entry).folder;
    }
    return false;
}

FormerPlace Reconciler::recordAllButFirst(NodeNumber node, std::span<const FormerPlace> left) {
    for (const auto& place : left.subspan(1)) record(fsEventMoved | fsEventRemoved, node, place);
    return left.front();
}

void Reconciler::resolve(NodeNumber node, Change& change) {
    const auto& index = state_.index;
    const auto& object = index.node(node);
    if (object.firstName == ObjectIndex::none && !object.isRoot) {
        const bool matters =
            object.fileID != 0 || object.documentID != 0 || object.kind == ObjectKind::Directory;
        if (change.left.empty() || !matters) return;
        beginRemoval(node, recordAllButFirst(node, change.left));
        return;
    }
    if (change.isSilent) return;
    if (object.isRoot) {
        if (change.isModified) {
            record(fsEventModified, node, state_.urlOf(node)->path(), ObjectIndex::none);
        }
        return;
    }
    const auto isNow = [&](const FormerPlace& place) {
        return index.findObject(place.folder, place.name) == node;
    };
    const bool hasOtherPlaces = !change.left.empty() || !change.came.empty();
    const auto isPackage = [&](std::string_view name) {
        return object.kind == ObjectKind::Directory && isDocument(object, name);
    };
    const auto& present = index.entry(object.firstName);
    for (const auto& place : change.left) {
        if (isNow(place)) continue;
        // With its name a package leaves its identifier, and so does a folder that becomes one.
        const bool isEnd = isPackage(place.name) != isPackage(index.name(present));
        record(isEnd ? fsEventRemoved : fsEventMoved | fsEventRemoved, node, place);
    }
    std::string whole;  // the path of a folder that now is shown otherwise
    index.forEachName(node, [&](ObjectIndex::EntryNumber at) {
        const auto& entry = index.entry(at);
        const auto came = std::ranges::any_of(change.came, [&](const FormerPlace& place) {
            return place.folder == entry.folder && place.name == index.name(entry);
        });
        if (!came && !change.isModified && !hasOtherPlaces) return;
        const auto folder = state_.urlOf(entry.folder);
        if (!folder) return;
        auto path = joined(folder->path(), index.name(entry));
        const bool isMove = came && !change.left.empty();
        // Who listed while it was missing has seen none of its entries.
        if (isMove && object.kind == ObjectKind::Directory &&
            (change.wasMissing || isAboveMoved(change.left.front().folder) ||
             coverOfPath(change.left.front().path) != coverOfPath(path))) {
            whole = path;
        }
        const auto flags = isMove ? fsEventMoved : came ? fsEventCreated : fsEventModified;
        record(flags, node, std::move(path), entry.folder);
    });
    if (!whole.empty()) recordBelow(node, whole);
}

void Reconciler::recordBelow(NodeNumber folder, std::string path) {
    const auto& index = state_.index;
    std::vector<std::pair<NodeNumber, std::string>> folders;
    folders.emplace_back(folder, std::move(path));
    while (!folders.empty()) {
        const auto [holder, below] = std::move(folders.back());
        folders.pop_back();
        index.forEachChild(holder, [&](ObjectIndex::EntryNumber at) {
            const auto object = index.entry(at).object;
            auto child = joined(below, index.name(index.entry(at)));
            record(fsEventModified, object, child, holder);
            if (index.node(object).kind == ObjectKind::Directory) {
                folders.emplace_back(object, std::move(child));
            }
        });
    }
}

bool Reconciler::recordMissing() {
    const std::unique_lock lock(state_.indexMutex);
    const auto missing = removals_.pendingNodes();
    for (const auto node : missing) {
        const auto& last = removals_.removal(node)->last;
        record(fsEventModified, node, last);
        if (state_.index.node(node).kind == ObjectKind::Directory) recordBelow(node, last.path);
    }
    return !missing.empty();
}

bool Reconciler::isDocument(const ObjectIndex::Node& node, std::string_view path) const {
    return node.kind == ObjectKind::RegularFile ||
           (node.kind == ObjectKind::Directory &&
            state_.configuration.isPackageName(path.substr(path.rfind('/') + 1)));
}

void Reconciler::record(FSEventFlags flags, NodeNumber node, FormerPlace place) {
    const auto& index = state_.index;
    const auto& object = index.node(node);
    const bool isDocument = this->isDocument(object, place.path);
    EventRecord& made = events_.emplace_back();
    made.event.flags = flags | (object.kind == ObjectKind::Directory ? fsEventIsFolder : 0);
    made.event.fileID = object.fileID;
    made.event.identifierKind = isDocument ? IdentifierKind::Document : IdentifierKind::File;
    made.event.documentID = object.documentID;
    made.event.path = std::move(place.path);
    if (place.folder == ObjectIndex::none) return;
    made.folder = index.node(place.folder).inode;
    made.folderGeneration = place.folderGeneration;
}

void Reconciler::recordRemoval(FSEventFlags flags, const ObjectIndex::Node& node,
                               const FormerPlace& last) {
    // It was never reported, or not under the identifier that it had there.
    const bool wasDocument = isDocument(node, last.path);
    if ((wasDocument ? node.documentID : node.fileID) == 0) return;
    EventRecord& made = events_.emplace_back();
    made.event.flags = flags;
    made.event.fileID = node.fileID;
    made.event.documentID = node.documentID;
    made.event.identifierKind = wasDocument ? IdentifierKind::Document : IdentifierKind::File;
    made.event.path = last.path;
    if (last.folder == ObjectIndex::none) return;
    made.folder = state_.index.node(last.folder).inode;
    made.folderGeneration = last.folderGeneration;
}

void Reconciler::recordGap(std::string path, std::string why) {
    events_.push_back(gapRecord(std::move(path)));
    state_.lastGap = std::move(why);
}

void Reconciler::recordUnreadable(NodeNumber folder, std::uint64_t stamp, std::string path,
                                  std::string why) {
    const auto mark = unreadableMark + std::to_string(stamp);
    {
        const std::unique_lock lock(state_.indexMutex);
        if (state_.index.metadata(folder) == mark) return;
        state_.index.setMetadata(folder, mark);
    }
    recordGap(std::move(path), std::move(why));
}

Result<void> Reconciler::commit() {
    std::vector<ObjectRow> rows;
    std::vector<NodeNumber> taken;
    {
        const std::unique_lock lock(state_.indexMutex);
        for (const auto node : std::exchange(changedInOrder_, {})) resolve(node, changes_[node]);
        changes_.clear();
        taken = state_.index.popDirty();
        rows.reserve(taken.size());
        for (const auto number : taken) rows.push_back(state_.index.row(number));
        for (const auto node : ownersOfClosedNames_) {
            const auto* removal = removals_.removal(node);
            if (!removal) continue;
            rows.push_back(state_.index.row(node));
            rows.back().names = {{0, removal->last.path}};
        }
    }
    // In the order of the table's tree, so that few pages are touched.
    std::ranges::sort(rows, {}, &ObjectRow::inode);
    auto events = std::exchange(events_, {});
    const bool isDurable = tookNumbers_ || !events.empty() || !unownedChanges_.empty();
    if (auto done = state_.write(rows, isDurable, events, unownedChanges_); !done) {
        state_.putBackDirty(taken);
        return done;
    }
    tookNumbers_ = false;
    unownedChanges_.clear();
    ownersOfClosedNames_.clear();
    {
        const std::unique_lock lock(state_.indexMutex);
        state_.index.markNumbersStored(taken);
    }
    captureMetadata();
    return {};
}

}  // namespace platform

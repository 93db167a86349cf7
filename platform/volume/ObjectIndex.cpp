#include "platform/volume/ObjectIndex.h"

#include <algorithm>
#include <functional>

namespace platform {

namespace {

/// Deeper than any path that the kernel would take; also what ends a chain that runs in a circle.
constexpr std::size_t deepest = 4096;

const std::string& textOf(const std::unordered_map<ObjectIndex::NodeNumber, std::string>& texts,
                          ObjectIndex::NodeNumber number) {
    static const std::string nothing;
    const auto found = texts.find(number);
    return found == texts.end() ? nothing : found->second;
}

std::uint64_t keyOfName(ObjectIndex::NodeNumber folder, std::string_view name) {
    return std::hash<std::string_view>()(name) ^ (folder * std::uint64_t{0x9E3779B97F4A7C15});
}

}  // namespace

ObjectRow ObjectIndex::row(NodeNumber number) const {
    const Node& node = this->node(number);
    ObjectRow row{
        .inode = node.inode,
        .generation = node.generation,
        .fileID = node.fileID,
        .documentID = node.documentID,
        .kind = node.kind,
        .stamp = node.stamp == 0 || !heldCounts_.contains(number) ? node.stamp : ~node.stamp,
        .names = {},
        .metadata = metadata(number),
        .rootPath = rootPath(number),
        .hadMoreNames = node.hasMoreNames};
    forEachName(number, [&](EntryNumber at) {
        const Entry& own = entry(at);
        row.names.push_back({this->node(own.folder).inode, std::string(name(own))});
    });
    return row;
}

ObjectIndex::NodeNumber ObjectIndex::findInode(std::uint64_t inode) const {
    return byInode_.find(inode, [this](NodeNumber n) { return node(n).inode; });
}

ObjectIndex::NodeNumber ObjectIndex::findFileID(std::uint64_t fileID) const {
    if (fileID >= firstFreshFileID) {
        return byFreshFileID_.find(fileID, [this](NodeNumber n) { return node(n).fileID; });
    }
    const NodeNumber number = findInode(fileID);
    if (number == none) return none;
    const std::uint64_t handedOut = node(number).fileID;
    return handedOut == 0 || handedOut == fileID ? number : none;
}

ObjectIndex::NodeNumber ObjectIndex::findDocumentID(std::uint32_t documentID) const {
    if (documentID == 0) return none;
    return byDocumentID_.find(documentID,
                              [this](NodeNumber n) { return std::uint64_t{node(n).documentID}; });
}

ObjectIndex::EntryNumber ObjectIndex::findEntry(NodeNumber folder, std::string_view name) const {
    if (folder == none) return none;
    return byName_.find(
        keyOfName(folder, name), [this](EntryNumber n) { return entryKey(n); },
        [&](EntryNumber n) { return entry(n).folder == folder && this->name(entry(n)) == name; });
}

ObjectIndex::NodeNumber ObjectIndex::findObject(NodeNumber folder, std::string_view name) const {
    const auto found = findEntry(folder, name);
    return found == none ? none : entry(found).object;
}

std::uint64_t ObjectIndex::entryKey(EntryNumber number) const {
    const Entry& entry = this->entry(number);
    return entry.folder == none ? SlotTable::noKey : keyOfName(entry.folder, name(entry));
}

ObjectIndex::NodeNumber ObjectIndex::ensure(std::uint64_t inode) {
    if (const NodeNumber known = findInode(inode); known != none) return known;
    const NodeNumber number = nodes_.add();
    nodes_[number].inode = inode;
    byInode_.insert(number, [this](NodeNumber n) { return node(n).inode; });
    return number;
}

void ObjectIndex::load(const ObjectRow& row) {
    const NodeNumber number = ensure(row.inode);
    setIdentity(number, row);
    for (const auto& [folder, name] : row.names) {
        if (folder == 0) {
            conflicts_.push_back({number, none, name});
            continue;
        }
        const auto holder = ensure(folder);
        if (findEntry(holder, name) == none) {
            addName(number, holder, name);
            nodes_[holder].isListed = true;  // entries are stored all at once
        } else {
            conflicts_.push_back({number, holder, name});
        }
    }
    if (!row.metadata.empty()) metadata_[number] = row.metadata;
    Node& node = nodes_[number];
    node.kind = row.kind;
    node.stamp = row.stamp;
    markStored(number);
}

void ObjectIndex::loadFurtherName(std::uint64_t inode, const ObjectRow::Name& name) {
    const NodeNumber number = ensure(inode);
    nodes_[number].hasMoreNames = true;  // also where the name is another's now
    if (name.folder == 0) {
        rootPaths_[number] = name.name;
        return;
    }
    const NodeNumber folder = ensure(name.folder);
    if (const auto known = findEntry(folder, name.name); known != none) {
        if (entry(known).object != number) conflicts_.push_back({number, folder, name.name});
        return;
    }
    const bool wasDirty = nodes_[number].isDirty;
    addName(number, folder, name.name);
    nodes_[number].isDirty = wasDirty;
}

const std::string& ObjectIndex::metadata(NodeNumber number) const {
    return textOf(metadata_, number);
}

void ObjectIndex::setMetadata(NodeNumber number, std::string metadata) {
    if (textOf(metadata_, number) == metadata) return;
    setText(metadata_, number, std::move(metadata));
    markDirty(number);
}

const std::string& ObjectIndex::rootPath(NodeNumber number) const {
    return textOf(rootPaths_, number);
}

void ObjectIndex::setRootPath(NodeNumber number, std::string path) {
    if (!path.empty()) nodes_[number].hasMoreNames = true;  // it is stored among them
    setText(rootPaths_, number, std::move(path));
}

std::vector<ObjectIndex::NodeNumber> ObjectIndex::formerRoots() const {
    std::vector<NodeNumber> former;
    for (const auto& [number, path] : rootPaths_) {
        if (!node(number).isRoot) former.push_back(number);
    }
    return former;
}

void ObjectIndex::setText(Texts& texts, NodeNumber number, std::string text) {
    if (textOf(texts, number) == text) return;
    if (text.empty()) {
        texts.erase(number);
    } else {
        texts[number] = std::move(text);
    }
    markDirty(number);
}

void ObjectIndex::clear() {
    nodes_ = {};
    entries_ = {};
    firstFree_ = none;
    names_ = NameArena();
    for (auto* table : {&byInode_, &byFreshFileID_, &byDocumentID_, &byName_}) table->clear();
    dirty_.clear();
    metadata_.clear();
    rootPaths_.clear();
    conflicts_.clear();
    heldIn_.clear();
    heldCounts_.clear();
}

void ObjectIndex::setIdentity(NodeNumber number, const ObjectRow& identity) {
    Node& node = nodes_[number];
    node.generation = identity.generation;
    node.hasNewNumbers |= node.fileID != identity.fileID || node.documentID != identity.documentID;
    if (node.fileID != identity.fileID) {
        node.fileID = identity.fileID;
        if (node.fileID >= firstFreshFileID) {
            byFreshFileID_.insert(number, [this](NodeNumber n) { return this->node(n).fileID; });
        }
    }
    if (node.documentID != identity.documentID) {
        node.documentID = identity.documentID;
        if (node.documentID != 0) {
            byDocumentID_.insert(
                number, [this](NodeNumber n) { return std::uint64_t{this->node(n).documentID}; });
        }
    }
}

void ObjectIndex::setGeneration(NodeNumber number, std::uint64_t generation) {
    Node& node = nodes_[number];
    if (node.fileID != 0 || node.generation == generation) return;
    node.generation = generation;
    markDirty(number);
}

void ObjectIndex::setState(NodeNumber number, ObjectKind kind, std::uint64_t stamp, bool isRacy) {
    Node& node = nodes_[number];
    node.isRacy = isRacy;
    if (node.kind == kind && node.stamp == stamp) return;
    node.kind = kind;
    node.stamp = stamp;
    markDirty(number);
}

void ObjectIndex::setDeferred(NodeNumber number, bool isDeferred, NodeNumber left) {
    if (nodes_[number].isDeferred == isDeferred) return;
    nodes_[number].isDeferred = isDeferred;
    if (isDeferred) {
        noteHeldIn(number, left);
        forEachName(number, [&](EntryNumber at) { noteHeldIn(number, entry(at).folder); });
        return;
    }
    const auto ended = heldIn_.extract(number);
    if (ended.empty()) return;
    for (const auto folder : ended.mapped()) {
        if (--heldCounts_[folder] > 0) continue;
        heldCounts_.erase(folder);
        markDirty(folder);
    }
}

void ObjectIndex::noteHeldIn(NodeNumber object, NodeNumber folder) {
    if (folder == none) return;
    heldIn_[object].push_back(folder);
    ++heldCounts_[folder];
    markDirty(folder);
}

NameArena::Place ObjectIndex::storedName(std::string_view name) {
    if (names_.wantsRebuild()) {
        NameArena rebuilt;
        for (EntryNumber n = 0; n < entries_.size(); ++n) {
            if (entries_[n].folder != none)
                entries_[n].name = rebuilt.add(names_.at(entries_[n].name));
        }
        names_ = std::move(rebuilt);
    }
    return names_.add(name);
}

void ObjectIndex::addName(NodeNumber object, NodeNumber folder, std::string_view name) {
    EntryNumber number = firstFree_;
    if (number == none) {
        number = entries_.add();
    } else {
        firstFree_ = entries_[number].next;
    }
    const auto place = storedName(name);
    const EntryNumber first = nodes_[folder].firstChild;
    entries_[number] = {folder, object, place, none, first, none, none};
    if (first != none) entries_[first].previous = number;
    nodes_[folder].firstChild = number;
    ++nodes_[folder].childCount;
    // Behind the first of its names, so that this stays the first.
    const EntryNumber firstName = nodes_[object].firstName;
    if (firstName == none) {
        nodes_[object].firstName = number;
    } else {
        nodes_[object].hasMoreNames = true;
        const EntryNumber next = std::exchange(entries_[firstName].nextName, number);
        entries_[number].previousName = firstName;
        entries_[number].nextName = next;
        if (next != none) entries_[next].previousName = number;
    }
    byName_.insert(number, [this](EntryNumber n) { return entryKey(n); });
    markDirty(object);
    if (nodes_[object].isDeferred) noteHeldIn(object, folder);
}

void ObjectIndex::removeName(EntryNumber number) {
    Entry& removed = entries_[number];
    --nodes_[removed.folder].childCount;
    if (removed.previous == none) {
        nodes_[removed.folder].firstChild = removed.next;
    } else {
        entries_[removed.previous].next = removed.next;
    }
    if (removed.next != none) entries_[removed.next].previous = removed.previous;
    if (removed.previousName == none) {
        nodes_[removed.object].firstName = removed.nextName;
    } else {
        entries_[removed.previousName].nextName = removed.nextName;
    }
    if (removed.nextName != none) entries_[removed.nextName].previousName = removed.previousName;
    markDirty(removed.object);
    names_.drop(removed.name);
    removed = {};
    removed.next = firstFree_;
    firstFree_ = number;
}

ObjectIndex::NodeNumber ObjectIndex::top(NodeNumber number) const {
    for (std::size_t depth = 0; depth < deepest && !node(number).isRoot; ++depth) {
        const auto at = node(number).firstName;
        if (at == none) break;
        number = entry(at).folder;
    }
    return number;
}

std::optional<ObjectIndex::Path> ObjectIndex::path(NodeNumber number) const {
    std::vector<std::string_view> components;
    std::size_t length = 0;
    // Only a file has several names, so the choice is made once.
    const auto climb = [&](EntryNumber at) -> NodeNumber {
        components.clear();
        length = 0;
        while (at != none && components.size() < deepest) {
            components.push_back(name(entry(at)));
            length += components.back().size() + 1;
            const NodeNumber folder = entry(at).folder;
            if (node(folder).isRoot) return folder;
            at = node(folder).firstName;
        }
        return none;
    };
    NodeNumber root = node(number).isRoot ? number : none;
    for (auto at = node(number).firstName; root == none && at != none; at = entry(at).nextName) {
        root = climb(at);
    }
    if (root == none) return std::nullopt;
    Path path{root, {}};
    path.below.reserve(length);
    for (auto component = components.rbegin(); component != components.rend(); ++component) {
        if (!path.below.empty()) path.below += '/';
        path.below += *component;
    }
    return path;
}

std::vector<ObjectIndex::NodeNumber> ObjectIndex::popDirty() {
    std::vector<NodeNumber> taken;
    taken.reserve(dirty_.size());
    std::vector<NodeNumber> held;
    for (const NodeNumber number : std::exchange(dirty_, {})) {
        Node& node = nodes_[number];
        if (!node.isDirty) continue;
        if (node.isDeferred) {
            held.push_back(number);
            continue;
        }
        node.isDirty = false;
        taken.push_back(number);
    }
    dirty_ = std::move(held);
    return taken;
}

std::vector<ObjectIndex::EntryNumber> ObjectIndex::entriesInNoFolder() const {
    std::vector<EntryNumber> found;
    for (EntryNumber number = 0; number < entries_.size(); ++number) {
        const auto folder = entry(number).folder;
        if (folder == none) continue;
        const Node& holder = node(folder);
        const bool isFolder = holder.stamp == 0 || holder.kind == ObjectKind::Directory;
        const bool isSomewhere =
            holder.firstName != none || holder.isRoot || !rootPath(folder).empty();
        if (!isFolder || !isSomewhere) found.push_back(number);
    }
    return found;
}

void ObjectIndex::markNumbersStored(std::span<const NodeNumber> popped) {
    for (const auto node : popped) nodes_[node].hasNewNumbers = false;
    for (const auto node : dirty_) {
        if (nodes_[node].isDeferred) nodes_[node].hasNewNumbers = false;
    }
}

void ObjectIndex::markDirty(NodeNumber number) {
    if (nodes_[number].isDirty) return;
    nodes_[number].isDirty = true;
    dirty_.push_back(number);
}

std::size_t ObjectIndex::bytes() const {
    std::size_t bytes =
        nodes_.bytes() + entries_.bytes() + names_.bytes() + dirty_.capacity() * sizeof(NodeNumber);
    for (const auto* table : {&byInode_, &byFreshFileID_, &byDocumentID_, &byName_}) {
        bytes += table->bytes();
    }
    return bytes;
}

}  // namespace platform

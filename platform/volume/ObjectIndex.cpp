#include "platform/volume/ObjectIndex.h"

#include <algorithm>

namespace platform {

namespace {

/// Deeper than any path that the kernel would take; also what ends a chain that runs in a circle.
constexpr std::size_t deepest = 4096;

constexpr std::int64_t clockTick = 20'000'000;  // ns, and to spare

}  // namespace

bool isSettled(const FileAttributes& folder, const QSDate& now) {
    const QSDate last = std::max(folder.modification, folder.change);
    // The seconds first: file systems store any number of them.
    if (now.seconds != last.seconds && now.seconds - 1 != last.seconds) {
        return now.seconds > last.seconds;
    }
    const std::int64_t seconds = now.seconds - last.seconds;
    return seconds * 1'000'000'000 + now.nanoseconds - last.nanoseconds >= clockTick;
}

ObjectRow ObjectIndex::row(NodeNumber number) const {
    const Node& node = this->node(number);
    return {node.inode,
            node.generation,
            node.fileID,
            node.documentID,
            node.parent == none ? 0 : this->node(node.parent).inode,
            std::string(name(node)),
            node.kind};
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

ObjectIndex::NodeNumber ObjectIndex::ensure(std::uint64_t inode) {
    if (const NodeNumber known = findInode(inode); known != none) return known;
    if (count_ % chunkSize == 0) chunks_.push_back(std::make_unique<Node[]>(chunkSize));
    const NodeNumber number = count_++;
    at(number).inode = inode;
    byInode_.insert(number, [this](NodeNumber n) { return node(n).inode; });
    return number;
}

void ObjectIndex::load(const ObjectRow& row) {
    const NodeNumber number = ensure(row.inode);
    setIdentity(number, row);
    const NodeNumber parent = row.parent == 0 ? none : ensure(row.parent);
    Node& node = at(number);
    node.parent = parent;
    node.kind = row.kind;
    node.isDirty = false;
    node.round = round_;
    setName(node, row.name);
}

void ObjectIndex::clear() {
    chunks_.clear();
    count_ = 0;
    names_ = NameArena();
    byInode_.clear();
    byFreshFileID_.clear();
    byDocumentID_.clear();
    dirty_.clear();
    entryCounts_.clear();
}

void ObjectIndex::setIdentity(NodeNumber number, const ObjectRow& identity) {
    Node& node = at(number);
    node.generation = identity.generation;
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
    Node& node = at(number);
    if (node.fileID != 0 || node.generation == generation) return;
    node.generation = generation;
    markDirty(number);
}

void ObjectIndex::setName(Node& node, std::string_view name) {
    if (this->name(node) == name) return;
    names_.drop(node.name);
    node.name = names_.add(name);
    if (!names_.wantsRebuild()) return;
    NameArena rebuilt;
    for (NodeNumber n = 0; n < count_; ++n) at(n).name = rebuilt.add(names_.at(at(n).name));
    names_ = std::move(rebuilt);
}

void ObjectIndex::place(NodeNumber number, NodeNumber parent, std::string_view name,
                        ObjectKind kind) {
    Node& node = at(number);
    node.round = round_;
    if (node.parent == parent && node.kind == kind && this->name(node) == name) return;
    node.parent = parent;
    node.kind = kind;
    setName(node, name);
    markDirty(number);
}

void ObjectIndex::displace(NodeNumber number) {
    Node& node = at(number);
    if (node.parent == none) return;
    node.parent = none;
    markDirty(number);
}

ObjectIndex::NodeNumber ObjectIndex::endRound(NodeNumber first, NodeNumber limit) {
    const NodeNumber end = std::min(count_, first + limit);
    for (NodeNumber number = first; number < end; ++number) {
        if (node(number).round != round_) displace(number);
    }
    return end == count_ ? none : end;
}

std::optional<ObjectIndex::Path> ObjectIndex::path(NodeNumber number) const {
    std::vector<std::string_view> components;
    std::size_t length = 0;
    for (; number != none && !node(number).isRoot; number = node(number).parent) {
        components.push_back(name(node(number)));
        if (components.back().empty() || components.size() == deepest) return std::nullopt;
        length += components.back().size() + 1;
    }
    if (number == none) return std::nullopt;
    Path path{number, {}};
    path.below.reserve(length);
    for (auto component = components.rbegin(); component != components.rend(); ++component) {
        if (!path.below.empty()) path.below += '/';
        path.below += *component;
    }
    return path;
}

std::vector<ObjectIndex::NodeNumber> ObjectIndex::takeDirty(std::size_t limit) {
    std::vector<NodeNumber> taken;
    taken.reserve(std::min(limit, dirty_.size()));
    while (!dirty_.empty() && taken.size() < limit) {
        const NodeNumber number = dirty_.back();
        dirty_.pop_back();
        if (std::exchange(at(number).isDirty, false)) taken.push_back(number);
    }
    if (dirty_.empty()) dirty_.shrink_to_fit();
    return taken;
}

void ObjectIndex::markDirty(NodeNumber number) {
    if (std::exchange(at(number).isDirty, true)) return;
    dirty_.push_back(number);
}

std::optional<std::uint64_t> ObjectIndex::entryCount(const FileAttributes& folder) const {
    const auto found = entryCounts_.find(folder.identity.inode);
    if (found == entryCounts_.end()) return std::nullopt;
    const EntryCount& count = found->second;
    if (count.generation != folder.identity.generation ||
        count.modification != folder.modification || count.change != folder.change) {
        return std::nullopt;
    }
    return count.entries;
}

void ObjectIndex::rememberEntryCount(const FileAttributes& folder, std::uint64_t entries) {
    entryCounts_[folder.identity.inode] = {folder.identity.generation, entries, folder.modification,
                                           folder.change};
}

std::size_t ObjectIndex::bytes() const {
    // A hash node: its link, the value, and what malloc adds.
    constexpr std::size_t entryCountBytes =
        sizeof(decltype(entryCounts_)::value_type) + 2 * sizeof(void*);
    return chunks_.size() * chunkSize * sizeof(Node) + names_.bytes() + byInode_.bytes() +
           byFreshFileID_.bytes() + byDocumentID_.bytes() + dirty_.capacity() * sizeof(NodeNumber) +
           entryCounts_.size() * entryCountBytes + entryCounts_.bucket_count() * sizeof(void*);
}

}  // namespace platform

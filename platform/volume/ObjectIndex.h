#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/files/FileAttributes.h"
#include "platform/volume/NameArena.h"
#include "platform/volume/SlotTable.h"

namespace platform {

/// Fresh file IDs begin here; below, a file ID is an inode number.
inline constexpr std::uint64_t firstFreshFileID = std::uint64_t{1} << 62;

/// Whether a change of the folder after `now` is sure to show in its times: kernels stamp changes
/// once a timer tick, so that two close ones may look like one.
[[nodiscard]] bool isSettled(const FileAttributes& folder, const QSDate& now);

/// One object as the store keeps it.
struct ObjectRow {
    std::uint64_t inode = 0;
    std::uint64_t generation = 0;  ///< 0 = not known, and nothing was handed out
    std::uint64_t fileID = 0;      ///< 0 = none was handed out for this inode number yet
    std::uint32_t documentID = 0;
    std::uint64_t parent = 0;  ///< inode of the folder; 0 = not located (or the storage itself)
    std::string name;
    ObjectKind kind = ObjectKind::Other;
};

/// What the store knows, in memory: one node an inode number that was ever seen, found by inode,
/// file ID or document ID, with the folder and name where the object was last. Nodes never go, as
/// the memory that a number was used. About 70 bytes an object. Not synchronised.
class ObjectIndex {
  public:
    using NodeNumber = std::uint32_t;
    static constexpr NodeNumber none = SlotTable::none;

    struct Node {
        std::uint64_t inode = 0;
        std::uint64_t generation = 0;
        std::uint64_t fileID = 0;
        NodeNumber parent = none;
        NameArena::Place name = 0;
        std::uint32_t documentID = 0;
        ObjectKind kind = ObjectKind::Other;
        bool isDirty = false;    ///< differs from its row in the store; in dirty_
        bool isRoot = false;     ///< paths begin here
        std::uint8_t round = 0;  ///< of the crawl that saw it last
    };

    ObjectIndex() = default;
    ObjectIndex(const ObjectIndex&) = delete;
    ObjectIndex& operator=(const ObjectIndex&) = delete;

    [[nodiscard]] std::size_t size() const { return count_; }
    [[nodiscard]] const Node& node(NodeNumber number) const {
        return chunks_[number / chunkSize][number % chunkSize];
    }
    [[nodiscard]] std::string_view name(const Node& node) const { return names_.at(node.name); }
    [[nodiscard]] ObjectRow row(NodeNumber number) const;

    [[nodiscard]] NodeNumber findInode(std::uint64_t inode) const;
    /// The object that the ID was handed out for; of inode numbers also one that none was handed
    /// out for yet.
    [[nodiscard]] NodeNumber findFileID(std::uint64_t fileID) const;
    [[nodiscard]] NodeNumber findDocumentID(std::uint32_t documentID) const;

    /// The node of the inode number, a blank one where it is new.
    NodeNumber ensure(std::uint64_t inode);
    /// Takes over a row as it is in the store.
    void load(const ObjectRow& row);
    void clear();

    void setIdentity(NodeNumber number, const ObjectRow& identity);
    /// For an object that no ID was handed out for.
    void setGeneration(NodeNumber number, std::uint64_t generation);

    [[nodiscard]] bool isAt(const Node& node, std::uint64_t parentInode,
                            std::string_view name) const {
        return node.parent != none && this->node(node.parent).inode == parentInode &&
               this->name(node) == name;
    }
    /// Puts the object there and marks it seen in this round. Dirty where that is new.
    void place(NodeNumber number, NodeNumber parent, std::string_view name, ObjectKind kind);
    void displace(NodeNumber number);

    /// Begins a round of place() calls that shows which objects are still there.
    void beginRound() { ++round_; }
    /// Displaces what was not placed in this round, among `limit` nodes from `first` on; returns
    /// the next `first`, or none at the end.
    NodeNumber endRound(NodeNumber first, NodeNumber limit);

    void setRoot(NodeNumber number, bool isRoot) { at(number).isRoot = isRoot; }
    struct Path {
        NodeNumber root = none;
        std::string below;  ///< without a leading "/"; empty for the root itself
    };
    /// None where the object is not located below a root.
    [[nodiscard]] std::optional<Path> path(NodeNumber number) const;

    /// Up to `limit` nodes that differ from the store; they count as stored from now on.
    [[nodiscard]] std::vector<NodeNumber> takeDirty(std::size_t limit);
    void markDirty(NodeNumber number);
    void markStored(NodeNumber number) { at(number).isDirty = false; }
    /// At least as many as there are.
    [[nodiscard]] std::size_t dirtyCount() const { return dirty_.size(); }

    /// Entries of a folder in one state of it.
    struct EntryCount {
        std::uint64_t generation = 0;
        std::uint64_t entries = 0;
        QSDate modification;
        QSDate change;
    };
    [[nodiscard]] std::optional<std::uint64_t> entryCount(const FileAttributes& folder) const;
    void rememberEntryCount(const FileAttributes& folder, std::uint64_t entries);

    /// Memory held, estimated for the table of entry counts.
    [[nodiscard]] std::size_t bytes() const;

  private:
    static constexpr std::size_t chunkSize = 4096;

    [[nodiscard]] Node& at(NodeNumber number) {
        return chunks_[number / chunkSize][number % chunkSize];
    }
    void setName(Node& node, std::string_view name);

    std::vector<std::unique_ptr<Node[]>> chunks_;
    NodeNumber count_ = 0;
    NameArena names_;
    SlotTable byInode_;
    SlotTable byFreshFileID_;
    SlotTable byDocumentID_;
    std::vector<NodeNumber> dirty_;  // may name a node twice, or one that was stored meanwhile
    std::unordered_map<std::uint64_t, EntryCount> entryCounts_;
    std::uint8_t round_ = 0;
};

}  // namespace platform

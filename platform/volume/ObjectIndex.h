#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
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

/// One object as the store keeps it.
struct ObjectRow {
    struct Name {
        std::uint64_t folder = 0;  ///< inode number; 0: the folder's number is another's now
        std::string name;          ///< the path, as presented then, where there is no folder
    };

    std::uint64_t inode = 0;
    std::uint64_t generation = 0;  ///< 0 = not known, and nothing was handed out
    std::uint64_t fileID = 0;      ///< 0 = none was handed out for this inode number yet
    std::uint32_t documentID = 0;
    ObjectKind kind = ObjectKind::Other;
    std::uint64_t stamp = 0;    ///< of its state when it was last read; 0 = not read yet
    std::vector<Name> names;    ///< where it is; several for a file with hard links
    std::string metadata;       ///< user metadata that it was seen with, packed; mostly empty
    std::string rootPath;       ///< of a root: where it is presented; else empty
    bool hadMoreNames = false;  ///< the store may hold further names of it
};

/// What the service knows, in memory: one node an inode number that was ever seen, found by inode,
/// file ID or document ID; and one entry a name in a folder, found by folder and name. Nodes never
/// go, as the memory that a number was used. About 100 bytes an object. Not synchronised.
class ObjectIndex {
  public:
    using NodeNumber = std::uint32_t;
    using EntryNumber = std::uint32_t;
    static constexpr NodeNumber none = SlotTable::none;

    struct Node {
        std::uint64_t inode = 0;
        std::uint64_t generation = 0;
        std::uint64_t fileID = 0;
        std::uint64_t stamp = 0;
        std::uint32_t documentID = 0;
        EntryNumber firstName = none;   ///< of its own
        EntryNumber firstChild = none;  ///< of what it holds, where it is a folder
        std::uint32_t childCount = 0;
        ObjectKind kind = ObjectKind::Other;
        bool isDirty : 1 = false;       ///< differs from its row in the store; in dirty_
        bool isRoot : 1 = false;        ///< paths begin here
        bool hasMoreNames : 1 = false;  ///< the store may hold further names of it
        bool isRacy : 1 = false;        ///< a later change may have left the stamp as it is
        bool isUndecided : 1 = false;   ///< its document ID may go to another object, or come
        bool isListed : 1 = false;      ///< a folder all of whose entries are known
        bool isDeferred : 1 = false;    ///< its row waits for an event that is still to come
        /// A crash might let its file ID or document ID be allocated again, so they must not be
        /// shown: no commit has stored or at least reserved them.
        bool hasNewNumbers : 1 = false;
    };
    struct Entry {
        NodeNumber folder = none;
        NodeNumber object = none;
        NameArena::Place name = 0;
        EntryNumber previous = none;  ///< in the folder
        EntryNumber next = none;
        EntryNumber previousName = none;  ///< of the same object
        EntryNumber nextName = none;
    };

    ObjectIndex() = default;
    ObjectIndex(const ObjectIndex&) = delete;
    ObjectIndex& operator=(const ObjectIndex&) = delete;

    [[nodiscard]] std::size_t size() const { return nodes_.size(); }
    [[nodiscard]] const Node& node(NodeNumber number) const { return nodes_[number]; }
    [[nodiscard]] const Entry& entry(EntryNumber number) const { return entries_[number]; }
    [[nodiscard]] std::string_view name(const Entry& entry) const { return names_.at(entry.name); }
    [[nodiscard]] ObjectRow row(NodeNumber number) const;

    [[nodiscard]] NodeNumber findInode(std::uint64_t inode) const;
    /// The object that the ID was handed out for; of inode numbers also one that none was handed
    /// out for yet.
    [[nodiscard]] NodeNumber findFileID(std::uint64_t fileID) const;
    [[nodiscard]] NodeNumber findDocumentID(std::uint32_t documentID) const;
    [[nodiscard]] EntryNumber findEntry(NodeNumber folder, std::string_view name) const;
    /// The object of that name there; none if the index has no such name.
    [[nodiscard]] NodeNumber findObject(NodeNumber folder, std::string_view name) const;

    /// The node of the inode number, a blank one where it is new.
    NodeNumber ensure(std::uint64_t inode);
    /// Takes over a row as it is in the store.
    void load(const ObjectRow& row);
    void loadFurtherName(std::uint64_t inode, const ObjectRow::Name& name);

    /// Of two rows that claim one place one was held when the last run ended. The one that came
    /// second does not have that name now, and nor has one whose folder's number is another's.
    struct ConflictingName {
        NodeNumber object = none;
        NodeNumber folder = none;
        std::string name;  ///< the path where there is no folder
    };
    [[nodiscard]] std::vector<ConflictingName> popConflicts() {
        return std::exchange(conflicts_, {});
    }
    void clear();

    /// Generation, file ID and document ID of the row.
    void setIdentity(NodeNumber number, const ObjectRow& identity);
    /// For an object that no ID was handed out for.
    void setGeneration(NodeNumber number, std::uint64_t generation);
    void setState(NodeNumber number, ObjectKind kind, std::uint64_t stamp, bool isRacy);
    [[nodiscard]] const std::string& metadata(NodeNumber number) const;
    void setMetadata(NodeNumber number, std::string metadata);
    void setListed(NodeNumber number, bool isListed) { nodes_[number].isListed = isListed; }
    /// A deferred row stays in the store as it was, so that after a crash the same is found.
    /// `left` is a folder where the object has a name in the store only. Until the row is deferred
    /// no more, the store does not know all entries of that folder and of those where the object
    /// is, so their rows have no stamp that the disk could have.
    void setDeferred(NodeNumber number, bool isDeferred, NodeNumber left = none);
    void setUndecided(NodeNumber number, bool isUndecided) {
        nodes_[number].isUndecided = isUndecided;
    }

    /// REQUIRES: the name is free there, the object is not the folder itself.
    void addName(NodeNumber object, NodeNumber folder, std::string_view name);
    void removeName(EntryNumber number);

    void setRoot(NodeNumber number, bool isRoot) { nodes_[number].isRoot = isRoot; }
    /// Where a root is presented, or was in the last run; empty for all that is no root. The store
    /// keeps it, and not whether paths begin there.
    [[nodiscard]] const std::string& rootPath(NodeNumber number) const;
    void setRootPath(NodeNumber number, std::string path);
    /// Those with a path where none begins yet.
    [[nodiscard]] std::vector<NodeNumber> formerRoots() const;
    struct Path {
        NodeNumber root = none;
        std::string below;  ///< without a leading "/"; empty for the root itself
    };
    /// None if the object is not located below a root. Of several names the first that is.
    [[nodiscard]] std::optional<Path> path(NodeNumber number) const;
    /// Where a climb by the first name of each ends: at a root, or at an object without a name.
    [[nodiscard]] NodeNumber top(NodeNumber number) const;

    /// Calls `visit(EntryNumber)` for each entry of the folder; it may remove that entry.
    template <typename Visit>
    void forEachChild(NodeNumber folder, Visit visit) const {
        for (auto at = node(folder).firstChild; at != none;) {
            const auto next = entry(at).next;
            visit(at);
            at = next;
        }
    }
    /// The same for the object's own names.
    template <typename Visit>
    void forEachName(NodeNumber object, Visit visit) const {
        for (auto at = node(object).firstName; at != none;) {
            const auto next = entry(at).nextName;
            visit(at);
            at = next;
        }
    }

    /// The nodes that differ from the store and are not held; they count as stored from now on.
    [[nodiscard]] std::vector<NodeNumber> popDirty();

    /// Entries in what is no folder, since its number is another object's, and in folders that are
    /// nowhere. Looks at every entry.
    [[nodiscard]] std::vector<EntryNumber> entriesInNoFolder() const;
    void markDirty(NodeNumber number);
    void markStored(NodeNumber number) {
        nodes_[number].isDirty = nodes_[number].hasNewNumbers = false;
    }
    /// After the durable commit of rows that were popped as dirty, which has reserved the numbers
    /// of those that are held as well.
    void markNumbersStored(std::span<const NodeNumber> popped);
    /// At least as many as there are.
    [[nodiscard]] std::size_t dirtyCount() const { return dirty_.size(); }

    /// Memory held.
    [[nodiscard]] std::size_t bytes() const;

  private:
    /// A vector whose elements never move.
    template <typename T>
    class Chunks {
      public:
        [[nodiscard]] T& operator[](std::uint32_t at) { return chunks_[at / length][at % length]; }
        [[nodiscard]] const T& operator[](std::uint32_t at) const {
            return chunks_[at / length][at % length];
        }
        [[nodiscard]] std::uint32_t size() const { return size_; }
        std::uint32_t add() {
            if (size_ % length == 0) chunks_.push_back(std::make_unique<T[]>(length));
            return size_++;
        }
        [[nodiscard]] std::size_t bytes() const { return chunks_.size() * length * sizeof(T); }

      private:
        static constexpr std::uint32_t length = 4096;
        std::vector<std::unique_ptr<T[]>> chunks_;
        std::uint32_t size_ = 0;
    };

    using Texts = std::unordered_map<NodeNumber, std::string>;
    void setText(Texts& texts, NodeNumber number, std::string text);

    [[nodiscard]] std::uint64_t entryKey(EntryNumber number) const;
    NameArena::Place storedName(std::string_view name);
    void noteHeldIn(NodeNumber object, NodeNumber folder);

    Chunks<Node> nodes_;
    Chunks<Entry> entries_;
    EntryNumber firstFree_ = none;  // chained by next
    NameArena names_;
    SlotTable byInode_;
    SlotTable byFreshFileID_;
    SlotTable byDocumentID_;
    SlotTable byName_;
    std::vector<ConflictingName> conflicts_;
    std::unordered_map<NodeNumber, std::vector<NodeNumber>> heldIn_;  ///< folders, by held object
    std::unordered_map<NodeNumber, std::uint32_t> heldCounts_;        ///< how often, by folder
    std::vector<NodeNumber> dirty_;  // may name a node twice, or one that has been stored since
    // Never an empty text.
    Texts metadata_;
    Texts rootPaths_;
};

}  // namespace platform

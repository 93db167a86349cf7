#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/volume/ObjectIndex.h"

namespace platform {

/// Where an object was.
struct FormerPlace {
    ObjectIndex::NodeNumber folder = ObjectIndex::none;
    std::string name;
    std::string path;  ///< presented, as it was then
    /// Of the folder. Where the node has another one, its inode number is another folder's now.
    std::uint64_t folderGeneration = 0;
};

/// Objects that have lost their last name and may come back, or have a replacement, before they are
/// reported removed; and the vacated names of documents. Not synchronised.
class PendingRemovals {
  public:
    using Time = std::chrono::steady_clock::time_point;
    using NodeNumber = ObjectIndex::NodeNumber;

    struct PendingRemoval {
        FormerPlace last;
        Time at;
        bool isFromScan =
            false;  ///< it was removed while nobody watched, so no replacement is on its way
    };
    /// A name that the owner of a document ID has lost.
    struct VacatedName {
        NodeNumber owner = ObjectIndex::none;  ///< none: its number is another object's now
        std::uint64_t fileID = 0;              ///< of the owner
        ObjectKind kind = ObjectKind::Other;   ///< of the owner
        FormerPlace place;
        std::string metadata;  ///< that the owner was last seen with
        Time at;
        bool isFromScan = false;
        /// Its owner now stands where the one who took the name came from.
        bool isExchange = false;
        /// This process itself removes or moves the owner, so that it has no replacement.
        bool isFinal = false;
    };

    void beginRemoval(NodeNumber node, PendingRemoval removal) {
        pending_.insert_or_assign(node, std::move(removal));
    }
    /// It is back, or its time is over.
    std::optional<PendingRemoval> popRemoval(NodeNumber node);
    [[nodiscard]] const PendingRemoval* removal(NodeNumber node) const;

    /// The first name that the document left within the window stays the one that counts. Returns
    /// the owner of the document's vacated name that this one ends; none if it had none.
    NodeNumber vacate(std::uint32_t documentID, const VacatedName& vacatedName);
    void closeVacatedName(std::uint32_t documentID);
    /// The folder was removed, and its number is another one's. Returns the documents and the
    /// owners.
    std::vector<std::pair<std::uint32_t, NodeNumber>> closeVacatedNamesIn(NodeNumber folder);
    [[nodiscard]] VacatedName* vacatedName(std::uint32_t documentID);
    [[nodiscard]] const VacatedName* vacatedName(std::uint32_t documentID) const;
    /// The document that left this name, 0 where none did.
    [[nodiscard]] std::uint32_t documentThatLeft(NodeNumber folder, std::string_view name) const;

    /// Documents with a vacated name, and nodes whose removal is pending: copies, to be worked
    /// through while both change.
    [[nodiscard]] std::vector<std::uint32_t> openDocuments() const;
    [[nodiscard]] std::vector<NodeNumber> pendingNodes() const;
    [[nodiscard]] std::size_t removalCount() const { return pending_.size(); }
    [[nodiscard]] bool isEmpty() const { return pending_.empty() && vacatedNames_.empty(); }

  private:
    std::unordered_map<NodeNumber, PendingRemoval> pending_;
    std::unordered_map<std::uint32_t, VacatedName> vacatedNames_;
    std::map<std::pair<NodeNumber, std::string>, std::uint32_t> byPlace_;
};

}  // namespace platform

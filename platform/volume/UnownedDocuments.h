#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/volume/ObjectIndex.h"
#include "platform/volume/PendingRemovals.h"

namespace platform {

/// Documents that lost their last name and whose inode number is another object's now, until it
/// is decided whether they go on in a replacement. Not synchronised.
class UnownedDocuments {
  public:
    struct UnownedDocument {
        std::uint32_t documentID = 0;
        ObjectIndex::Node node;  ///< as it was
        PendingRemovals::PendingRemoval removal;
    };

    const UnownedDocument& add(UnownedDocument unowned);
    /// Null where the document is none.
    [[nodiscard]] const UnownedDocument* find(std::uint32_t documentID) const;
    [[nodiscard]] bool hasInode(std::uint64_t inode) const { return byInode_.contains(inode); }
    std::optional<UnownedDocument> remove(std::uint32_t documentID);

    /// Their documents: all of them, those with this inode number, those that were removed until
    /// then.
    [[nodiscard]] std::vector<std::uint32_t> all() const;
    [[nodiscard]] std::vector<std::uint32_t> withInode(std::uint64_t inode) const;
    [[nodiscard]] std::vector<std::uint32_t> removedUntil(PendingRemovals::Time time);
    [[nodiscard]] bool isEmpty() const { return byDocument_.empty(); }

  private:
    std::unordered_map<std::uint32_t, UnownedDocument> byDocument_;
    std::unordered_multimap<std::uint64_t, std::uint32_t> byInode_;
    std::deque<std::pair<PendingRemovals::Time, std::uint32_t>> inOrder_;  ///< also of removed ones
};

}  // namespace platform

#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/volume/Departures.h"
#include "platform/volume/ObjectIndex.h"

namespace platform {

/// Documents that lost their last name and whose inode number is another object's by now, until it
/// is decided whether they go on in a replacement. Not synchronised.
class Orphans {
  public:
    struct Orphan {
        std::uint32_t documentID = 0;
        ObjectIndex::Node node;  ///< as it was
        Departures::Departure removal;
    };

    const Orphan& add(Orphan orphan);
    /// Null where the document is none.
    [[nodiscard]] const Orphan* find(std::uint32_t documentID) const;
    [[nodiscard]] bool hasInode(std::uint64_t inode) const { return byInode_.contains(inode); }
    std::optional<Orphan> remove(std::uint32_t documentID);

    /// Their documents: all of them, those with this inode number, those that were removed until
    /// then.
    [[nodiscard]] std::vector<std::uint32_t> all() const;
    [[nodiscard]] std::vector<std::uint32_t> withInode(std::uint64_t inode) const;
    [[nodiscard]] std::vector<std::uint32_t> removedUntil(Departures::Time time);
    [[nodiscard]] bool isEmpty() const { return byDocument_.empty(); }

  private:
    std::unordered_map<std::uint32_t, Orphan> byDocument_;
    std::unordered_multimap<std::uint64_t, std::uint32_t> byInode_;
    std::deque<std::pair<Departures::Time, std::uint32_t>> inOrder_;  ///< also of removed ones
};

}  // namespace platform

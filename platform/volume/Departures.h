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
    /// Of the folder. Where the node has another one, its inode number is another folder's by now.
    std::uint64_t folderGeneration = 0;
};

/// What has lost its last name and may come back, or be succeeded, before it is reported gone; and
/// the names that documents left, whose next owners may be their successors. Not synchronised.
class Departures {
  public:
    using Time = std::chrono::steady_clock::time_point;
    using NodeNumber = ObjectIndex::NodeNumber;

    struct Departure {
        FormerPlace last;
        Time at;
        bool isFromScan = false;  ///< it went while nobody watched, so no successor is on its way
    };
    /// A name that the owner of a document ID has left.
    struct Vacancy {
        NodeNumber owner = ObjectIndex::none;  ///< none: its number is another object's by now
        std::uint64_t fileID = 0;              ///< of the owner
        ObjectKind kind = ObjectKind::Other;   ///< of the owner
        FormerPlace place;
        std::string metadata;  ///< that the owner was last seen with
        Time at;
        bool isFromScan = false;
        /// Its owner now stands where the one who took the name came from.
        bool isExchange = false;
        /// This process itself removes or moves the owner, so that nothing succeeds it.
        bool isFinal = false;
    };

    void depart(NodeNumber node, Departure departure) {
        departed_.insert_or_assign(node, std::move(departure));
    }
    /// It is back, or its time is over.
    std::optional<Departure> takeDeparture(NodeNumber node);
    [[nodiscard]] const Departure* departure(NodeNumber node) const;

    /// The first name that the document left within the window stays the one that counts. Returns
    /// the owner of a vacancy that this one ends, none where there is none.
    NodeNumber vacate(std::uint32_t documentID, const Vacancy& vacancy);
    void closeVacancy(std::uint32_t documentID);
    /// The folder has gone, and its number is another one's. Returns the documents and the owners.
    std::vector<std::pair<std::uint32_t, NodeNumber>> closeVacanciesIn(NodeNumber folder);
    [[nodiscard]] Vacancy* vacancy(std::uint32_t documentID);
    [[nodiscard]] const Vacancy* vacancy(std::uint32_t documentID) const;
    /// The document that left this name, 0 where none did.
    [[nodiscard]] std::uint32_t documentThatLeft(NodeNumber folder, std::string_view name) const;

    /// Documents with an open vacancy, and nodes that departed: copies, to be worked through while
    /// both change.
    [[nodiscard]] std::vector<std::uint32_t> openDocuments() const;
    [[nodiscard]] std::vector<NodeNumber> departedNodes() const;
    [[nodiscard]] std::size_t departureCount() const { return departed_.size(); }
    [[nodiscard]] bool isEmpty() const { return departed_.empty() && vacancies_.empty(); }

  private:
    std::unordered_map<NodeNumber, Departure> departed_;
    std::unordered_map<std::uint32_t, Vacancy> vacancies_;
    std::map<std::pair<NodeNumber, std::string>, std::uint32_t> byPlace_;
};

}  // namespace platform

#include "platform/volume/PendingRemovals.h"

namespace platform {

std::optional<PendingRemovals::PendingRemoval> PendingRemovals::popRemoval(NodeNumber node) {
    auto taken = pending_.extract(node);
    if (taken.empty()) return std::nullopt;
    return std::move(taken.mapped());
}

const PendingRemovals::PendingRemoval* PendingRemovals::removal(NodeNumber node) const {
    const auto found = pending_.find(node);
    return found == pending_.end() ? nullptr : &found->second;
}

PendingRemovals::NodeNumber PendingRemovals::vacate(std::uint32_t documentID,
                                                    const VacatedName& vacatedName) {
    const std::pair place(vacatedName.place.folder, vacatedName.place.name);
    if (!vacatedNames_.try_emplace(documentID, vacatedName).second) return ObjectIndex::none;
    // A document that left the name before has lost it for good.
    const auto [former, isNew] = byPlace_.try_emplace(place, documentID);
    if (isNew) return ObjectIndex::none;
    const auto ended = vacatedNames_.extract(former->second);
    former->second = documentID;
    return ended.empty() ? ObjectIndex::none : ended.mapped().owner;
}

void PendingRemovals::closeVacatedName(std::uint32_t documentID) {
    const auto found = vacatedNames_.find(documentID);
    if (found == vacatedNames_.end()) return;
    byPlace_.erase({found->second.place.folder, found->second.place.name});
    vacatedNames_.erase(found);
}

std::vector<std::pair<std::uint32_t, PendingRemovals::NodeNumber>>
PendingRemovals::closeVacatedNamesIn(NodeNumber folder) {
    std::vector<std::pair<std::uint32_t, NodeNumber>> closed;
    for (auto at = byPlace_.lower_bound({folder, {}});
         at != byPlace_.end() && at->first.first == folder;) {
        const auto ended = vacatedNames_.extract(at->second);
        if (!ended.empty()) closed.emplace_back(ended.key(), ended.mapped().owner);
        at = byPlace_.erase(at);
    }
    return closed;
}

PendingRemovals::VacatedName* PendingRemovals::vacatedName(std::uint32_t documentID) {
    const auto found = vacatedNames_.find(documentID);
    return found == vacatedNames_.end() ? nullptr : &found->second;
}

const PendingRemovals::VacatedName* PendingRemovals::vacatedName(std::uint32_t documentID) const {
    const auto found = vacatedNames_.find(documentID);
    return found == vacatedNames_.end() ? nullptr : &found->second;
}

std::uint32_t PendingRemovals::documentThatLeft(NodeNumber folder, std::string_view name) const {
    if (byPlace_.empty()) return 0;
    const auto found = byPlace_.find({folder, std::string(name)});
    return found == byPlace_.end() ? 0 : found->second;
}

std::vector<std::uint32_t> PendingRemovals::openDocuments() const {
    std::vector<std::uint32_t> documents;
    documents.reserve(vacatedNames_.size());
    for (const auto& [document, name] : vacatedNames_) documents.push_back(document);
    return documents;
}

std::vector<PendingRemovals::NodeNumber> PendingRemovals::pendingNodes() const {
    std::vector<NodeNumber> nodes;
    nodes.reserve(pending_.size());
    for (const auto& [node, removal] : pending_) nodes.push_back(node);
    return nodes;
}

}  // namespace platform

#include "platform/volume/Departures.h"

namespace platform {

std::optional<Departures::Departure> Departures::takeDeparture(NodeNumber node) {
    auto taken = departed_.extract(node);
    if (taken.empty()) return std::nullopt;
    return std::move(taken.mapped());
}

const Departures::Departure* Departures::departure(NodeNumber node) const {
    const auto found = departed_.find(node);
    return found == departed_.end() ? nullptr : &found->second;
}

Departures::NodeNumber Departures::vacate(std::uint32_t documentID, const Vacancy& vacancy) {
    const std::pair place(vacancy.place.folder, vacancy.place.name);
    if (!vacancies_.try_emplace(documentID, vacancy).second) return ObjectIndex::none;
    // A document that left the name before has lost it for good.
    const auto [former, isNew] = byPlace_.try_emplace(place, documentID);
    if (isNew) return ObjectIndex::none;
    const auto ended = vacancies_.extract(former->second);
    former->second = documentID;
    return ended.empty() ? ObjectIndex::none : ended.mapped().owner;
}

void Departures::closeVacancy(std::uint32_t documentID) {
    const auto found = vacancies_.find(documentID);
    if (found == vacancies_.end()) return;
    byPlace_.erase({found->second.place.folder, found->second.place.name});
    vacancies_.erase(found);
}

std::vector<std::pair<std::uint32_t, Departures::NodeNumber>> Departures::closeVacanciesIn(
    NodeNumber folder) {
    std::vector<std::pair<std::uint32_t, NodeNumber>> closed;
    for (auto at = byPlace_.lower_bound({folder, {}});
         at != byPlace_.end() && at->first.first == folder;) {
        const auto ended = vacancies_.extract(at->second);
        if (!ended.empty()) closed.emplace_back(ended.key(), ended.mapped().owner);
        at = byPlace_.erase(at);
    }
    return closed;
}

Departures::Vacancy* Departures::vacancy(std::uint32_t documentID) {
    const auto found = vacancies_.find(documentID);
    return found == vacancies_.end() ? nullptr : &found->second;
}

const Departures::Vacancy* Departures::vacancy(std::uint32_t documentID) const {
    const auto found = vacancies_.find(documentID);
    return found == vacancies_.end() ? nullptr : &found->second;
}

std::uint32_t Departures::documentThatLeft(NodeNumber folder, std::string_view name) const {
    if (byPlace_.empty()) return 0;
    const auto found = byPlace_.find({folder, std::string(name)});
    return found == byPlace_.end() ? 0 : found->second;
}

std::vector<std::uint32_t> Departures::openDocuments() const {
    std::vector<std::uint32_t> documents;
    documents.reserve(vacancies_.size());
    for (const auto& [document, vacancy] : vacancies_) documents.push_back(document);
    return documents;
}

std::vector<Departures::NodeNumber> Departures::departedNodes() const {
    std::vector<NodeNumber> nodes;
    nodes.reserve(departed_.size());
    for (const auto& [node, departure] : departed_) nodes.push_back(node);
    return nodes;
}

}  // namespace platform

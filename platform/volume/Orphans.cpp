#include "platform/volume/Orphans.h"

#include <algorithm>

namespace platform {

const Orphans::Orphan& Orphans::add(Orphan orphan) {
    const auto document = orphan.documentID;
    (void)remove(document);
    byInode_.emplace(orphan.node.inode, document);
    inOrder_.emplace_back(orphan.removal.at, document);
    return byDocument_.emplace(document, std::move(orphan)).first->second;
}

const Orphans::Orphan* Orphans::find(std::uint32_t documentID) const {
    const auto found = byDocument_.find(documentID);
    return found == byDocument_.end() ? nullptr : &found->second;
}

std::optional<Orphans::Orphan> Orphans::remove(std::uint32_t documentID) {
    auto removed = byDocument_.extract(documentID);
    if (removed.empty()) return std::nullopt;
    const auto [first, last] = byInode_.equal_range(removed.mapped().node.inode);
    byInode_.erase(
        std::find_if(first, last, [&](const auto& of) { return of.second == documentID; }));
    if (byDocument_.empty()) inOrder_.clear();
    return std::move(removed.mapped());
}

std::vector<std::uint32_t> Orphans::all() const {
    std::vector<std::uint32_t> documents;
    documents.reserve(byDocument_.size());
    for (const auto& [document, orphan] : byDocument_) documents.push_back(document);
    return documents;
}

std::vector<std::uint32_t> Orphans::withInode(std::uint64_t inode) const {
    std::vector<std::uint32_t> documents;
    const auto [first, last] = byInode_.equal_range(inode);
    for (auto at = first; at != last; ++at) documents.push_back(at->second);
    return documents;
}

std::vector<std::uint32_t> Orphans::removedUntil(Departures::Time time) {
    std::vector<std::uint32_t> documents;
    for (; !inOrder_.empty() && inOrder_.front().first <= time; inOrder_.pop_front()) {
        const auto* orphan = find(inOrder_.front().second);
        if (orphan && orphan->removal.at <= time) documents.push_back(orphan->documentID);
    }
    return documents;
}

}  // namespace platform

#include "platform/volume/UnownedDocuments.h"

#include <algorithm>

namespace platform {

const UnownedDocuments::UnownedDocument& UnownedDocuments::add(UnownedDocument unowned) {
    const auto document = unowned.documentID;
    (void)remove(document);
    byInode_.emplace(unowned.node.inode, document);
    inOrder_.emplace_back(unowned.removal.at, document);
    return byDocument_.emplace(document, std::move(unowned)).first->second;
}

const UnownedDocuments::UnownedDocument* UnownedDocuments::find(std::uint32_t documentID) const {
    const auto found = byDocument_.find(documentID);
    return found == byDocument_.end() ? nullptr : &found->second;
}

std::optional<UnownedDocuments::UnownedDocument> UnownedDocuments::remove(
    std::uint32_t documentID) {
    auto removed = byDocument_.extract(documentID);
    if (removed.empty()) return std::nullopt;
    const auto [first, last] = byInode_.equal_range(removed.mapped().node.inode);
    byInode_.erase(
        std::find_if(first, last, [&](const auto& of) { return of.second == documentID; }));
    if (byDocument_.empty()) inOrder_.clear();
    return std::move(removed.mapped());
}

std::vector<std::uint32_t> UnownedDocuments::all() const {
    std::vector<std::uint32_t> documents;
    documents.reserve(byDocument_.size());
    for (const auto& [document, row] : byDocument_) documents.push_back(document);
    return documents;
}

std::vector<std::uint32_t> UnownedDocuments::withInode(std::uint64_t inode) const {
    std::vector<std::uint32_t> documents;
    const auto [first, last] = byInode_.equal_range(inode);
    for (auto at = first; at != last; ++at) documents.push_back(at->second);
    return documents;
}

std::vector<std::uint32_t> UnownedDocuments::removedUntil(PendingRemovals::Time time) {
    std::vector<std::uint32_t> documents;
    for (; !inOrder_.empty() && inOrder_.front().first <= time; inOrder_.pop_front()) {
        const auto* unowned = find(inOrder_.front().second);
        if (unowned && unowned->removal.at <= time) documents.push_back(unowned->documentID);
    }
    return documents;
}

}  // namespace platform

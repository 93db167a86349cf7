#include "platform/volume/VolumeState.h"

#include <algorithm>
#include <unordered_map>

#include "platform/volume/CrawlIndexer.h"
#include "platform/volume/CrawlPass.h"

namespace platform {

namespace {

constexpr std::size_t rowsAlongside = 512;  // places that ride along with a durable transaction

bool hasPlace(const VolumeService::IdentityRequest& request) {
    return !request.name.empty() && request.object->parentInode != 0;
}

/// Gives the row the identity of an object that it had none for, or was another one's.
Result<void> renewIdentity(ObjectRow& row, const ObjectIdentity& seen, bool freshOnly,
                           IdentityStore& store) {
    // A row that has a file ID is of another object: the number is used up for this one.
    const bool needsFresh =
        freshOnly || row.fileID != 0 || row.inode == 0 || row.inode >= firstFreshFileID;
    row.fileID = row.inode;
    row.generation = seen.generation;
    row.documentID = 0;
    if (!needsFresh) return {};
    const auto fresh = store.take(Counter::File);
    if (!fresh) return std::unexpected(fresh.error());
    row.fileID = *fresh;
    return {};
}

Result<void> addDocumentID(ObjectRow& row, IdentityStore& store) {
    const auto document = store.take(Counter::Document);
    if (!document) return std::unexpected(document.error());
    row.documentID = static_cast<std::uint32_t>(*document);
    return {};
}

}  // namespace

void VolumeService::State::addRoot(const ObjectIdentity& identity, const QSURL& url) {
    const std::unique_lock lock(indexMutex);
    std::erase_if(roots, [&](const Root& root) {
        if (root.url != url) return false;
        index.setRoot(root.node, false);
        return true;
    });
    const auto node = index.ensure(identity.inode);
    index.setGeneration(node, identity.generation);
    index.setRoot(node, true);
    roots.push_back({node, url});
}

std::optional<QSURL> VolumeService::State::urlOf(ObjectIndex::NodeNumber number) const {
    const auto path = index.path(number);
    if (!path) return std::nullopt;
    const auto root = std::ranges::find(roots, path->root, &Root::node);
    if (root == roots.end()) return std::nullopt;
    return QSURL::fileURLWithPath(root->url.path() + "/" + path->below);
}

std::optional<QSURL> VolumeService::State::locate(std::uint64_t fileID) const {
    ObjectIndex::Node node;
    std::optional<QSURL> url;
    {
        const std::shared_lock lock(indexMutex);
        const auto number = index.findFileID(fileID);
        if (number == ObjectIndex::none) return std::nullopt;
        node = index.node(number);
        url = urlOf(number);
    }
    if (!url || (node.fileID == 0 && freshOnly)) return std::nullopt;
    const auto attributes = configuration.files.attributes(*url);
    if (!attributes) return std::nullopt;
    const auto& identity = (*attributes)->identity;
    const bool isSame = identity.inode == node.inode &&
                        (node.fileID == 0 || identity.generation == node.generation);
    return isSame ? url : std::nullopt;
}

bool VolumeService::State::isThere(const IdentityRequest& request) const {
    if (!hasPlace(request)) return true;
    std::optional<QSURL> folder;
    {
        const std::shared_lock lock(indexMutex);
        const auto number = index.findInode(request.object->parentInode);
        if (number != ObjectIndex::none) folder = urlOf(number);
    }
    if (!folder) return true;
    const auto now =
        configuration.files.freshAttributes(folder->URLByAppendingPathComponent(request.name));
    return now && (*now)->identity == request.object->identity;
}

bool VolumeService::State::mayBeFound(std::uint64_t fileID) const {
    const std::shared_lock lock(indexMutex);
    if (const auto number = index.findFileID(fileID); number != ObjectIndex::none) {
        return index.node(number).fileID != 0 || !freshOnly;
    }
    // Else it was never handed out, or its object has died and left its number to another one. Only
    // an inode number that nothing was seen with may be that of something new.
    return !freshOnly && fileID != 0 && fileID < firstFreshFileID &&
           index.findInode(fileID) == ObjectIndex::none;
}

bool VolumeService::State::answerFromIndex(std::span<IdentityRequest> requests) {
    std::vector<const IdentityRequest*> moved;
    {
        const std::shared_lock lock(indexMutex);
        for (auto& request : requests) {
            const auto& object = *request.object;
            const auto number = index.findInode(object.identity.inode);
            if (number == ObjectIndex::none) return false;
            const auto& node = index.node(number);
            if (node.fileID == 0 || node.generation != object.identity.generation ||
                (request.wantsDocumentID && node.documentID == 0)) {
                return false;
            }
            request.result = {node.fileID, request.wantsDocumentID ? node.documentID : 0};
            if (hasPlace(request) && !index.isAt(node, object.parentInode, request.name)) {
                moved.push_back(&request);
            }
        }
    }
    if (moved.empty()) return true;
    const std::unique_lock lock(indexMutex);
    for (const auto* request : moved) {
        index.place(index.ensure(request->object->identity.inode),
                    index.ensure(request->object->parentInode), request->name,
                    request->object->kind());
    }
    return true;
}

Result<VolumeService::Identity> VolumeService::State::settle(const IdentityRequest& request,
                                                             StagedRow& staged) {
    const auto& seen = request.object->identity;
    const bool isKnown = staged.row.fileID != 0 && staged.row.generation == seen.generation;
    // Of two objects that had the number, the one whose attributes are older may be asked for last;
    // it is gone, and must not take the row from its successor.
    const bool isGone = !isKnown && staged.row.fileID != 0 && !isThere(request);
    ObjectRow passing = staged.row;
    auto& row = isGone ? passing : staged.row;
    if (!isKnown) {
        if (auto done = renewIdentity(row, seen, freshOnly, *store); !done) {
            return std::unexpected(std::move(done.error()));
        }
    }
    const bool needsDocument = request.wantsDocumentID && row.documentID == 0;
    if (needsDocument) {
        if (auto done = addDocumentID(row, *store); !done) {
            return std::unexpected(std::move(done.error()));
        }
    }
    if (!isGone) {
        staged.isNews |= !isKnown || needsDocument;
        row.kind = request.object->kind();
        if (hasPlace(request)) {
            row.parent = request.object->parentInode;
            row.name = request.name;
            staged.hasPlace = true;
        }
    }
    return Identity{row.fileID, request.wantsDocumentID ? row.documentID : 0};
}

Result<void> VolumeService::State::allocate(std::span<IdentityRequest> requests) {
    const std::scoped_lock storeLock(storeMutex);
    // Two requests may name one object (hard links), so rows are staged by inode.
    std::unordered_map<std::uint64_t, StagedRow> staged;
    {
        const std::shared_lock lock(indexMutex);
        for (const auto& request : requests) {
            const auto inode = request.object->identity.inode;
            const auto [entry, isNew] = staged.try_emplace(inode);
            if (!isNew) continue;
            const auto number = index.findInode(inode);
            if (number != ObjectIndex::none) entry->second.row = index.row(number);
            entry->second.row.inode = inode;
        }
    }
    std::vector<Identity> results;
    results.reserve(requests.size());
    for (const auto& request : requests) {
        const auto settled = settle(request, staged[request.object->identity.inode]);
        if (!settled) {
            store->giveBack();
            return std::unexpected(settled.error());
        }
        results.push_back(*settled);
    }

    std::vector<ObjectRow> rows;
    const auto alongside = takeDirtyRows(rowsAlongside, rows);
    for (const auto& [inode, entry] : staged) {
        if (entry.isNews) rows.push_back(entry.row);
    }
    if (auto done = store->commit(rows, IdentityStore::Durability::Identities); !done) {
        putBackDirty(alongside);
        return done;
    }
    publish(staged);
    for (std::size_t i = 0; i < requests.size(); ++i) requests[i].result = results[i];
    return {};
}

void VolumeService::State::publish(const std::unordered_map<std::uint64_t, StagedRow>& staged) {
    const std::unique_lock lock(indexMutex);
    for (const auto& [inode, entry] : staged) {
        const auto number = index.ensure(inode);
        if (entry.isNews) index.setIdentity(number, entry.row);
        if (!entry.hasPlace) continue;
        index.place(number, index.ensure(entry.row.parent), entry.row.name, entry.row.kind);
        if (entry.isNews) index.markStored(number);
    }
}

std::vector<ObjectIndex::NodeNumber> VolumeService::State::takeDirtyRows(
    std::size_t limit, std::vector<ObjectRow>& rows) {
    const std::unique_lock lock(indexMutex);
    auto taken = index.takeDirty(limit);
    rows.reserve(taken.size());
    for (const auto number : taken) rows.push_back(index.row(number));
    return taken;
}

void VolumeService::State::putBackDirty(std::span<const ObjectIndex::NodeNumber> nodes) {
    const std::unique_lock lock(indexMutex);
    for (const auto number : nodes) index.markDirty(number);
}

Result<bool> VolumeService::State::flush() {
    const std::scoped_lock storeLock(storeMutex);
    std::vector<ObjectRow> rows;
    const auto taken = takeDirtyRows(CrawlIndexer::rowsAtOnce, rows);
    if (rows.empty()) return false;
    // In the order of the table's tree, so that few pages are touched.
    std::ranges::sort(rows, {}, &ObjectRow::inode);
    if (auto done = store->commit(rows, IdentityStore::Durability::Hints); !done) {
        putBackDirty(taken);
        return std::unexpected(std::move(done.error()));
    }
    return rows.size() == CrawlIndexer::rowsAtOnce;
}

void VolumeService::State::flushAll() {
    for (Result<bool> more = true; more && *more;) more = flush();
}

void VolumeService::State::crawl(const std::atomic<bool>& stop) {
    std::vector<QSURL> urls;
    {
        const std::shared_lock lock(indexMutex);
        for (const auto& root : roots) urls.push_back(root.url);
    }
    CrawlIndexer indexer(
        {index, indexMutex, [this] { return flush().has_value(); }, configuration.progress});
    CrawlPass pass(configuration.files, indexer, stop);
    for (const auto& url : urls) pass.walk(url);
    if (pass.isComplete()) indexer.displaceUnseen();
    if (!stop) flushAll();
}

}  // namespace platform

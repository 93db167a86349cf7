// How roots come and go while the others are followed.
#include <cerrno>
#include <unordered_set>

#include "platform/tree/PathRelation.h"
#include "platform/volume/Follower.h"

namespace platform {

Result<void> Follower::addRoot(const ObjectIdentity& identity, const QSURL& url) {
    std::deque<NodeNumber> folders;
    {
        const std::scoped_lock lock(mutex_);
        bool isOther = false;
        {
            const std::shared_lock index(state_.indexMutex);
            const auto node = state_.rootAt(url);
            isOther = node != ObjectIndex::none &&
                      (node != state_.index.findInode(identity.inode) ||
                       state_.index.node(node).generation != identity.generation);
            const bool isKnown = node != ObjectIndex::none && state_.index.node(node).isRoot;
            if (isKnown && !isOther) return {};
        }
        if (isOther) {
            if (auto done = detach(url); !done) return done;
        }
        {
            const std::scoped_lock store(state_.storeMutex);
            folders.push_back(reconciler_.attach(identity, url));
        }
        if (auto done = commitRoots(); !done || !isFollowing_) return done;
    }
    Result<void> done;
    while (!folders.empty() && done) {
        const std::scoped_lock lock(mutex_);
        if (isStopped_) return std::unexpected(errorFromErrno(ECANCELED));
        drain();
        done = scanSomeOf(folders, Reconciler::Occasion::Scan);
    }
    state_.announce();
    wake();  // for what has happened during the scan
    return done;
}

Result<void> Follower::removeRoot(const QSURL& url) {
    // Objects that moved out of it before stay. A comparison at the start is not waited for.
    if (isCaughtUp()) (void)wait(Barrier::Seen);
    Result<void> done;
    {
        const std::scoped_lock lock(mutex_);
        done = detach(url);
    }
    state_.announce();
    wake();
    return done;
}

Result<void> Follower::detach(const QSURL& url) {
    // Objects that moved out of it may lie where the kernel does not report.
    if (isCaughtUp()) lookAtUnwatched();
    {
        const std::scoped_lock store(state_.storeMutex);
        if (!reconciler_.detach(url)) return {};
    }
    return commitRoots();
}

Result<void> Follower::commitRoots() {
    Result<void> done;
    {
        const std::scoped_lock store(state_.storeMutex);
        done = reconciler_.commit();
        noteCommit(done);
    }
    const auto removed = reconciler_.popRemovedFolders();
    const std::unordered_set<NodeNumber> all(removed.begin(), removed.end());
    std::erase_if(scan_, [&](NodeNumber folder) { return all.contains(folder); });
    for (const auto folder : removed) unwatch(folder);
    return done;
}

Reconciler::NodeNumber Reconciler::attach(const ObjectIdentity& identity, const QSURL& url) {
    occasion_ = Occasion::Scan;
    {
        const std::unique_lock lock(state_.indexMutex);
        auto& index = state_.index;
        const auto node = index.ensure(identity.inode);
        const auto& known = index.node(node);
        // One that was seen and never looked at has no generation, but may have a name.
        const bool wasSeen =
            known.generation != 0 || known.stamp != 0 || known.firstName != ObjectIndex::none;
        if (wasSeen && known.generation != identity.generation) renew(node, identity.generation);
    }
    state_.addRoot(identity, url);
    const std::unique_lock lock(state_.indexMutex);
    const auto node = state_.rootAt(url);
    const bool isNew = state_.index.node(node).stamp == 0;
    if (isNew && node != state_.roots.front().node) {
        changeOf(state_.roots.front().node).isModified = true;
    }
    occasion_ = Occasion::Live;
    now_ = state_.configuration.now();
    restore(node);
    return node;
}

bool Reconciler::detach(const QSURL& url) {
    {
        const std::shared_lock lock(state_.indexMutex);
        if (state_.rootAt(url) == ObjectIndex::none) return false;
    }
    occasion_ = Occasion::Live;
    now_ = state_.configuration.now();
    {
        const std::unique_lock lock(state_.indexMutex);
        restore(state_.rootAt(url));
    }
    decideBelow(url);
    const std::unique_lock lock(state_.indexMutex);
    forgetRoot(state_.rootAt(url));
    return true;
}

void Reconciler::forgetRoot(NodeNumber root) {
    auto& index = state_.index;
    const auto path = index.rootPath(root);
    forgetBelow(root, path);
    removedFolders_.push_back(root);
    // Nothing else reports the removal of an empty one.
    EventRecord& removal = events_.emplace_back();
    removal.event.flags = fsEventRemoved | fsEventIsFolder;
    removal.event.path = path;
    // If it comes back, that is reported.
    index.setState(root, index.node(root).kind, 0, false);
    index.setRoot(root, false);
    index.setRootPath(root, {});
    std::erase_if(state_.roots, [&](const auto& known) { return known.node == root; });
    changeOf(state_.roots.front().node).isModified = true;
}

/// Below a detached root no look finds removed objects or their replacements any more.
void Reconciler::decideBelow(const QSURL& root) {
    for (const auto document : removals_.openDocuments()) {
        const auto* vacatedName = removals_.vacatedName(document);
        if (vacatedName && isBelow(vacatedName->place.path, root.path()))
            decide(document, now_, true);
    }
    for (const auto node : removals_.pendingNodes()) {
        const auto* removal = removals_.removal(node);
        if (removal && isBelow(removal->last.path, root.path())) finish(node);
    }
    auto unowned = unowned_.all();
    std::erase_if(unowned, [&](auto document) {
        return !isBelow(unowned_.find(document)->removal.last.path, root.path());
    });
    finishUnowned(unowned);
}

}  // namespace platform

// How everything is compared with the index, and what that missed.
#include <system_error>

#include "platform/volume/Follower.h"

namespace platform {

void Follower::scanEverything(bool isRoutine) {
    const std::shared_lock lock(state_.indexMutex);
    scan_.clear();
    compared_.clear();
    for (const auto& root : state_.roots) {
        scan_.push_front(root.node);
    }
    isScanning_ = true;
    isRoutine_ = isRoutine;
    scanOccasion_ = isNeverScanned() ? Reconciler::Occasion::FirstScan : Reconciler::Occasion::Scan;
    scanned_ = reported_ = 0;
}

bool Follower::isNeverScanned() const {
    return state_.index.node(state_.roots.front().node).stamp == 0;
}

/// A first scan records no events for objects that have not changed since the first anchor may have
/// been handed out, which the store keeps as a Beginning. Where it keeps none, an earlier first
/// scan was interrupted. Some of what that scan had seen may be newer, so that earlier anchors
/// expire.
void Follower::beginFirstScan() {
    const auto present = Beginning::now(state_.configuration.clocks);
    const auto& root = state_.roots.front();
    const auto kept = Beginning::fromText(state_.index.metadata(root.node));
    beginning_ = kept.value_or(present);
    if (!beginning_.isComparableTo(present)) beginning_ = present;
    if (!kept || beginning_.wall != kept->wall) {
        reconciler_.recordGap(root.url.path(), "the first comparison was not completed");
    }
    {
        const std::unique_lock lock(state_.indexMutex);
        state_.index.setMetadata(root.node, {});
    }
    noteCommit(reconciler_.commit());
}

void Follower::scanSome() {
    // Objects that moved during the last looks have been looked for since.
    if (scan_.empty()) return endScan();
    (void)scanSomeOf(scan_, scanOccasion_);
    constexpr std::uint64_t progressStep = 1000;
    if (state_.configuration.progress && scanned_ - reported_ >= progressStep) {
        reported_ = scanned_;
        state_.configuration.progress(scanned_);
    }
}

std::deque<Follower::Look> Follower::lookAtSome(std::deque<NodeNumber>& toScan) {
    std::deque<Look> looks;
    std::size_t seen = 0;
    const auto work = [&] {
        std::unique_lock lock(readersMutex_);
        while (!toScan.empty() && seen < sightingsAtOnce && looks.size() < foldersAtOnce) {
            const auto folder = toScan.back();
            toScan.pop_back();
            lock.unlock();
            auto looked = look(folder, {.isWhole = true, .names = {}});
            lock.lock();
            if (looked.reading) seen += looked.reading->sightings.size();
            looks.push_back(std::move(looked));
        }
    };
    constexpr std::size_t many = 16;  // before that a thread takes longer to start
    std::thread other;
    if (toScan.size() >= many && !state_.configuration.isManual) {
        try {
            other = std::thread(work);
        } catch (const std::system_error&) {
            // There is none to be had; it takes longer.
        }
    }
    work();
    if (other.joinable()) other.join();
    return looks;
}

Result<void> Follower::scanSomeOf(std::deque<NodeNumber>& toScan, Reconciler::Occasion occasion) {
    std::vector<FolderReading> readings;
    for (auto& look : lookAtSome(toScan)) apply(std::move(look), readings);
    std::vector<NodeNumber> folders;
    folders.reserve(readings.size());
    for (const auto& reading : readings) folders.push_back(reading.folder);
    auto done = reconcile(std::move(readings), occasion);
    const std::shared_lock lock(state_.indexMutex);
    for (const auto folder : folders) {
        state_.index.forEachChild(folder, [&](ObjectIndex::EntryNumber at) {
            const auto child = state_.index.entry(at).object;
            if (state_.index.node(child).kind == ObjectKind::Directory) toScan.push_back(child);
        });
    }
    return done;
}

void Follower::endScan() {
    {
        const std::scoped_lock store(state_.storeMutex);
        if (scanOccasion_ == Reconciler::Occasion::Scan) {
            reconciler_.leaveLostFolders(now());
            noteCommit(reconciler_.commit());
        }
        reconciler_.decideAfterScan(now());
        bool usesSystemClock = true;
        for (const auto& root : state_.roots) {
            const auto folder = state_.configuration.files.openFolder(root.url);
            const auto own = folder ? (*folder)->ownState() : std::unexpected(folder.error());
            if (own && isCompared(root.node)) reconciler_.rememberScan(root.node, *own);
            const auto facts =
                folder ? readFolderFacts((*folder)->descriptor()) : std::unexpected(folder.error());
            usesSystemClock &= facts && facts->usesSystemClock;
        }
        const auto present = Beginning::now(state_.configuration.clocks);
        const bool isCertain = usesSystemClock && beginning_.isComparableTo(present);
        if (scanOccasion_ == Reconciler::Occasion::FirstScan && !isCertain) {
            reconciler_.recordGap(state_.roots.front().url.path(),
                                  "the times of the first comparison are in doubt");
        }
        noteCommit(reconciler_.commit());
    }
    afterCommit();
    if (storeTrouble_) return;  // the scan ends once all that it found is written
    isScanning_ = false;
    nextScan_ = now() + state_.configuration.reconcileInterval;
    isCaughtUp_ = true;
    state_.hasEvents = true;
}

void Follower::setCompared(NodeNumber folder, bool isCompared) {
    if (folder >= compared_.size()) compared_.resize(folder + 1);
    compared_[folder] = isCompared;
}

/// The last comparison did not find what was on its way from one folder to another, and so did not
/// come to what is in it.
void Follower::markMissed(NodeNumber folder) {
    const std::shared_lock lock(state_.indexMutex);
    state_.index.forEachChild(folder, [&](ObjectIndex::EntryNumber at) {
        const auto child = state_.index.entry(at).object;
        if (state_.index.node(child).kind != ObjectKind::Directory) return;
        if (!isCompared(child)) marks_[child].isWhole = true;
    });
}

}  // namespace platform

#include "platform/volume/CrawlIndexer.h"

namespace platform {

namespace {

constexpr ObjectIndex::NodeNumber nodesAtOnce = 10'000;  // looked at under one lock
constexpr std::uint64_t progressStep = 1000;

}  // namespace

CrawlIndexer::CrawlIndexer(Sinks sinks) : sinks_(std::move(sinks)) {
    const std::unique_lock lock(sinks_.mutex);
    sinks_.index.beginRound();
}

void CrawlIndexer::entered(const FileAttributes& folder) {
    const std::unique_lock lock(sinks_.mutex);
    sinks_.index.setGeneration(sinks_.index.ensure(folder.identity.inode),
                               folder.identity.generation);
}

void CrawlIndexer::saw(const FileAttributes& folder, std::span<const Entry> entries) {
    std::size_t dirty = 0;
    {
        const std::unique_lock lock(sinks_.mutex);
        auto& index = sinks_.index;
        const auto parent = index.ensure(folder.identity.inode);
        for (const auto& entry : entries) {
            index.place(index.ensure(entry.inode), parent, entry.name, entry.kind);
        }
        dirty = index.dirtyCount();
    }
    seen_ += entries.size();
    flushIfMany(dirty);
    if (sinks_.progress && seen_ - reported_ >= progressStep) {
        reported_ = seen_;
        sinks_.progress(seen_);
    }
}

void CrawlIndexer::counted(const FileAttributes& folder, std::uint64_t entries) {
    const std::unique_lock lock(sinks_.mutex);
    sinks_.index.rememberEntryCount(folder, entries);
}

void CrawlIndexer::displaceUnseen() {
    for (ObjectIndex::NodeNumber first = 0; first != ObjectIndex::none;) {
        const std::unique_lock lock(sinks_.mutex);
        first = sinks_.index.endRound(first, nodesAtOnce);
    }
}

void CrawlIndexer::flushIfMany(std::size_t dirty) {
    if (dirty < flushAt_) return;
    // After a failure (a full disk) the next try waits for much more to be written.
    flushAt_ = sinks_.flush() ? rowsAtOnce : dirty + 16 * rowsAtOnce;
}

}  // namespace platform

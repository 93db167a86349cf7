#include "platform/volume/CrawlPass.h"

#include <algorithm>
#include <cerrno>

#include "platform/log/Log.h"
#include "platform/volume/ObjectIndex.h"

namespace platform {

namespace {

constexpr std::size_t deepestOpen = 200;     // levels that keep their descriptor
constexpr std::size_t entriesAtOnce = 1000;  // what an observer gets in one call
constexpr std::size_t longestName = 255;

/// The folder went away, or became something else, or is another mount's.
bool isGone(const QSError& error) {
    return error.code == ENOENT || error.code == ENOTDIR || error.code == ELOOP ||
           error.code == EXDEV;
}

}  // namespace

CrawlPass::CrawlPass(const FileSystem& files, CrawlObserver& observer,
                     const std::atomic<bool>& stop)
    : files_(files), observer_(observer), stop_(stop) {
    entries_.reserve(entriesAtOnce);
    names_.reserve(entriesAtOnce * longestName);
}

void CrawlPass::walk(const QSURL& root) {
    levels_.clear();
    if (auto entered = enter(root, files_.openFolder(root)); !entered) {
        isComplete_ = false;  // an absent root says nothing about what was in it
        missed(root, entered.error());
    }
    while (!levels_.empty() && !stop_) {
        Level& level = levels_.back();
        if (level.folders.empty()) {
            levels_.pop_back();
            continue;
        }
        const std::string name = std::move(level.folders.back());
        level.folders.pop_back();
        auto child = level.folder ? level.folder->openChild(name)
                                  : files_.openFolder(level.url.URLByAppendingPathComponent(name));
        const QSURL url = child ? (*child)->url() : level.url.URLByAppendingPathComponent(name);
        if (auto entered = enter(url, std::move(child)); !entered) missed(url, entered.error());
    }
}

Result<void> CrawlPass::enter(const QSURL& url, Result<std::shared_ptr<Folder>> opened) {
    if (!opened) return std::unexpected(std::move(opened.error()));
    const auto& folder = *opened;
    const auto now = QSDate::now();
    const auto attributes = folder->ownAttributes();
    if (!attributes) return std::unexpected(attributes.error());
    observer_.entered(**attributes);
    Level level{url, levels_.size() < deepestOpen ? folder : nullptr, {}};
    const auto count = readEntries(*folder, **attributes, level.folders);
    levels_.push_back(std::move(level));
    if (!count) return std::unexpected(count.error());
    if (isSettled(**attributes, now)) observer_.counted(**attributes, *count);
    return {};
}

Result<std::uint64_t> CrawlPass::readEntries(Folder& folder, const FileAttributes& attributes,
                                             std::vector<std::string>& folders) {
    std::uint64_t count = 0;
    for (;;) {
        auto next = folder.next();
        if (!next) return std::unexpected(std::move(next.error()));
        if (!*next) break;
        const DirectoryEntry& entry = **next;
        ++count;
        if (entry.kind == ObjectKind::Directory) folders.emplace_back(entry.name);
        const auto start = names_.size();
        names_ += entry.name.substr(0, longestName);
        entries_.push_back({std::string_view(names_).substr(start), entry.inode, entry.kind});
        if (entries_.size() < entriesAtOnce) continue;
        deliver(attributes);
        if (stop_) return std::unexpected(errorFromErrno(ECANCELED));
    }
    deliver(attributes);
    return count;
}

void CrawlPass::deliver(const FileAttributes& folder) {
    if (!entries_.empty()) observer_.saw(folder, entries_);
    entries_.clear();
    names_.clear();
}

void CrawlPass::missed(const QSURL& url, const QSError& error) {
    entries_.clear();
    names_.clear();
    if (!isGone(error)) isComplete_ = false;
    Log::platformLog().write(LogLevel::Debug, [&] {
        return "crawl passes over \"" + files_.nativePath(url) + "\"; " + error.description();
    });
}

}  // namespace platform

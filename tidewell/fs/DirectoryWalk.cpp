#include "tidewell/fs/DirectoryWalk.h"

#include <cerrno>

#include "platform/fileprovider/Platform.h"
#include "platform/files/LookFailure.h"
#include "platform/foundation/fatalError.h"
#include "platform/tree/TreeLayout.h"
#include "tidewell/common/Logging.h"
#include "tidewell/fs/ContainerCover.h"

namespace tidewell {

namespace {

void logCannotOpen(const QSURL& url, const QSError& error) {
    const auto message = [&] {
        return "can't open directory at " + url.path() + "; " + error.description();
    };
    if (error.code == ENOENT || error.code == EACCES) {
        logDebug(message);
    } else {
        logError(message);
    }
}

}  // namespace

DirectoryWalk::DirectoryWalk(std::vector<Root> roots, ChildFilter childFilter, Emits emits)
    : roots_(std::move(roots)), childFilter_(childFilter), emits_(emits) {}

void DirectoryWalk::enter(std::shared_ptr<Folder> folder, WalkOptions options) {
    levels_.push_back({std::move(folder), options});
}

void DirectoryWalk::leave() {
    const auto& folder = *levels_.back().folder;
    if (const auto closed = levels_.back().folder->close(); !closed) {
        logError([&] {
            return "can't close directory at " + folder.url().path() + "; " +
                   closed.error().description();
        });
    }
    levels_.pop_back();
}

/// What one object has to do with is its own matter; anything else ends the walk, which would be
/// short without a reason.
Result<void> DirectoryWalk::passOver(const QSError& error) {
    if (lookFailureOf(error) == LookFailure::Unknown) return std::unexpected(error);
    return {};
}

Result<void> DirectoryWalk::openNextRoot() {
    const auto& root = roots_[nextRoot_++];
    auto folder = Platform::current().files().openFolder(root.url);
    if (folder && root.identity && (*folder)->ownIdentity() != *root.identity) {
        folder = std::unexpected(errorFromErrno(ENOENT, root.url.path()));
    }
    if (folder) {
        enter(std::move(*folder), root.options);
        return {};
    }
    logCannotOpen(root.url, folder.error());
    if (nextRoot_ == 1) return std::unexpected(folder.error());
    return passOver(folder.error());
}

Result<void> DirectoryWalk::emit(const Folder& folder, const DirectoryEntry& entry,
                                 const EntryCallback& callback) const {
    if (emits_ == Emits::directories && entry.kind != ObjectKind::Directory) return {};
    auto attributes = folder.childAttributes(entry.name);
    if (!attributes) {
        logDebug([&] {
            return "passing over " + folder.url().path() + "/" + std::string(entry.name) + "; " +
                   attributes.error().description();
        });
        return passOver(attributes.error());
    }
    const auto url = folder.url().URLByAppendingPathComponent(entry.name);
    url.setAttachment(std::move(*attributes));
    return callback(url);
}

Result<void> DirectoryWalk::descend(const Level& level, const DirectoryEntry& entry) {
    if (entry.kind != ObjectKind::Directory) return {};
    if ((level.options & walkDescendsIntoNothing) == walkDescendsIntoNothing) return {};
    const auto passedOver =
        isPackageName(entry.name) ? walkSkipsPackageDescendants : walkSkipsFolderDescendants;
    if ((level.options & passedOver) != 0) return {};
    auto child = level.folder->openChild(entry.name);
    if (!child) {
        logCannotOpen(level.folder->url().URLByAppendingPathComponent(entry.name), child.error());
        return passOver(child.error());
    }
    enter(std::move(*child), childFilter_(entry.name, level.options));
    return {};
}

Result<std::uint64_t> DirectoryWalk::walk(std::uint64_t skipOffset, std::uint64_t pageSize,
                                          const EntryCallback& callback) {
    for (;;) {
        if (levels_.empty()) {
            if (nextRoot_ == roots_.size()) return count_;
            if (auto opened = openNextRoot(); !opened) return std::unexpected(opened.error());
            continue;
        }
        const Level level = levels_.back();
        const auto entry = level.folder->next();
        if (!entry) {
            logCannotOpen(level.folder->url(), entry.error());
            // What is missing holds nothing; a container that cannot be read is not an empty one.
            const bool isContainer = levels_.size() == 1 && nextRoot_ == 1;
            if (isContainer && entry.error().code != ENOENT) return std::unexpected(entry.error());
            if (auto passed = passOver(entry.error()); !passed) {
                return std::unexpected(std::move(passed.error()));
            }
        }
        if (!entry || !*entry) {
            leave();
            continue;
        }
        const auto& name = (*entry)->name;
        if ((level.options & walkSkipsHiddenEntries) != 0 && isHiddenName(name)) continue;
        if (count_ >= skipOffset && count_ - skipOffset >= pageSize) {
            level.folder->unread();
            return count_;
        }
        if (count_ == walkWithoutPageLimit) fatalError("the count of a walk overflowed");
        ++count_;
        if (count_ > skipOffset) {
            const auto emitted = emit(*level.folder, **entry, callback);
            if (!emitted) return std::unexpected(emitted.error());
        }
        if (auto descended = descend(level, **entry); !descended) {
            return std::unexpected(std::move(descended.error()));
        }
    }
}

}  // namespace tidewell

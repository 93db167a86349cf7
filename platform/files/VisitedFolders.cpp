#include "platform/files/VisitedFolders.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "platform/files/Folder.h"
#include "platform/files/SystemCalls.h"

namespace platform {

namespace {

// Whatever moves a folder's change time.
constexpr std::uint32_t changes = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                  IN_DELETE_SELF | IN_MOVE_SELF | IN_ATTRIB | IN_ONLYDIR;

/// Inode and change time of an open folder.
std::pair<std::uint64_t, QSDate> stateOf(int folder) {
    struct stat status {};
    if (fstat(folder, &status) != 0) return {0, {}};
    return {status.st_ino,
            {status.st_ctim.tv_sec, static_cast<std::uint32_t>(status.st_ctim.tv_nsec)}};
}

}  // namespace

void VisitedFolders::add(const Folder& folder) {
    Visit visit{folder.url(), 0, {}, false};
    if (isArmed_) watch(visit, folder.descriptor());
    std::tie(visit.inode, visit.change) = stateOf(folder.descriptor());
    visits_.push_back(std::move(visit));
}

void VisitedFolders::watch(Visit& visit, int folder) {
    if (!inotify_) return;
    const auto path = descriptorPath(folder, "");
    visit.isWatched = inotify_add_watch(inotify_.get(), path.c_str(), changes) >= 0;
}

void VisitedFolders::arm() {
    if (isArmed_) return;
    isArmed_ = true;
    inotify_.reset(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    for (auto& visit : visits_) {
        const auto folder = files_.openObject(visit.url, O_PATH | O_DIRECTORY);
        if (!folder) continue;
        watch(visit, folder->get());
        // It may have changed between the visit and the watch; then only looking anew will do.
        if (stateOf(folder->get()) != std::pair(visit.inode, visit.change)) {
            visit.isWatched = false;
        }
    }
}

bool VisitedFolders::hasNews() {
    bool any = false;
    std::array<char, 16 * 1024> buffer;
    while (read(inotify_.get(), buffer.data(), buffer.size()) > 0) any = true;
    return any;
}

bool VisitedFolders::isUnchanged(const Visit& visit) const {
    const auto folder = files_.openObject(visit.url, O_PATH | O_DIRECTORY);
    return folder && stateOf(folder->get()) == std::pair(visit.inode, visit.change);
}

bool VisitedFolders::isUnchanged() {
    // News may concern an entry's attributes only, so it is no answer yet; but it is asked for
    // first, as a change after that is not ours to see.
    const bool looksAtAll = !inotify_ || hasNews();
    return std::ranges::all_of(visits_, [&](const Visit& visit) {
        return (visit.isWatched && !looksAtAll) || isUnchanged(visit);
    });
}

}  // namespace platform

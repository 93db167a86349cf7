#include "platform/registry/FolderWatcher.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace platform {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint32_t watched = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                  IN_CLOSE_WRITE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF |
                                  IN_ONLYDIR;

}  // namespace

FolderWatcher::FolderWatcher(Times times, std::size_t mostWatches)
    : times_(times),
      mostWatches_(mostWatches),
      inotify_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)),
      wake_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

FolderWatcher::~FolderWatcher() {
    stop();
    if (inotify_ >= 0) close(inotify_);
    if (wake_ >= 0) close(wake_);
}

void FolderWatcher::start(std::function<void()> changed) {
    changed_ = std::move(changed);
    thread_ = std::thread([this] { run(); });
}

void FolderWatcher::stop() {
    if (!thread_.joinable()) return;
    const std::uint64_t one = 1;
    (void)!write(wake_, &one, sizeof one);
    thread_.join();
}

void FolderWatcher::run() {
    pollfd stopped{wake_, POLLIN, 0};
    for (;;) {
        changed_();
        const auto period = isWhole() ? times_.period : times_.unwatchedPeriod;
        if (waitFor(period)) {
            const auto latest = Clock::now() + times_.most;
            while (Clock::now() < latest && waitFor(times_.rest)) continue;
        }
        if (poll(&stopped, 1, 0) > 0) return;
    }
}

bool FolderWatcher::waitFor(std::chrono::milliseconds time) {
    const auto until = Clock::now() + time;
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now());
        pollfd fds[] = {{wake_, POLLIN, 0}, {inotify_, POLLIN, 0}};
        const int ready = poll(fds, 2, static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0 || fds[0].revents != 0) return false;
        if (popEvents()) return true;
    }
}

bool FolderWatcher::popEvents() {
    alignas(inotify_event) std::array<char, 16UL * 1024> buffer;
    bool hasChanged = false;
    const std::scoped_lock lock(mutex_);
    for (;;) {
        const auto size = read(inotify_, buffer.data(), buffer.size());
        if (size <= 0) return hasChanged;
        for (std::size_t at = 0; at < static_cast<std::size_t>(size);) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer.data() + at);
            at += sizeof(inotify_event) + event->len;
            hasChanged |= (event->mask & IN_Q_OVERFLOW) != 0;
            const auto found = watches_.find(event->wd);
            if (found == watches_.end()) continue;
            const auto& watch = found->second;
            hasChanged |= watch.isWhole || event->len == 0 || watch.names.contains(event->name);
            if ((event->mask & IN_IGNORED) != 0) watches_.erase(found);
        }
    }
}

void FolderWatcher::begin() {
    const std::scoped_lock lock(mutex_);
    ++round_;
    isMissingSome_ = inotify_ < 0;
}

void FolderWatcher::add(const std::string& folder) {
    if (!folder.starts_with('/')) return;
    const std::scoped_lock lock(mutex_);
    const int watch = addWatch(folder);
    if (watch >= 0) {
        watches_[watch].isWhole = true;
    } else if (errno == ENOENT || errno == ENOTDIR) {
        addAncestor(folder);
    } else {
        isMissingSome_ = true;
    }
}

/// Watches the folder above for the next one on the way; what was made in between is seen since the
/// way is missing again.
void FolderWatcher::addAncestor(const std::string& folder) {
    std::string path = folder;
    while (path.size() > 1) {
        const auto slash = path.rfind('/');
        const auto name = path.substr(slash + 1);
        const auto above = slash == 0 ? std::string("/") : path.substr(0, slash);
        const int watch = name.empty() ? -1 : addWatch(above);
        if (watch >= 0) {
            watches_[watch].names.insert(name);
            if (access(path.c_str(), F_OK) != 0) return;
            const int made = addWatch(folder);
            if (made >= 0) {
                watches_[made].isWhole = true;
                return;
            }
            // A file is in the way, whose removal will be reported; or the way has grown.
            if (errno == ENOTDIR) return;
            if (errno != ENOENT) break;
            path = folder;
            continue;
        }
        if (!name.empty() && errno != ENOENT && errno != ENOTDIR) break;
        path = above;
    }
    isMissingSome_ = true;
}

int FolderWatcher::addWatch(const std::string& folder) {
    if (inotify_ < 0) {
        errno = EMFILE;
        return -1;
    }
    const int watch = inotify_add_watch(inotify_, folder.c_str(), watched);
    if (watch < 0) return watch;
    if (!watches_.contains(watch) && watches_.size() >= mostWatches_) {
        inotify_rm_watch(inotify_, watch);
        errno = ENOSPC;
        return -1;
    }
    auto& known = watches_[watch];
    if (known.round != round_) known = {false, {}, round_};
    return watch;
}

void FolderWatcher::end() {
    const std::scoped_lock lock(mutex_);
    std::erase_if(watches_, [&](const auto& known) {
        if (known.second.round == round_) return false;
        inotify_rm_watch(inotify_, known.first);
        return true;
    });
}

bool FolderWatcher::isWhole() const {
    const std::scoped_lock lock(mutex_);
    return !isMissingSome_;
}

}  // namespace platform

#include "platform/fileprovider/AppContainers.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <utility>

#include "platform/log/Log.h"
#include "platform/tree/PathRelation.h"
#include "platform/tree/TreeLayout.h"

namespace platform {

namespace {

QSURL rootURL(std::string_view identifier) {
    return libraryRootInContainer(containerURL(identifier));
}

/// Links followed.
bool getState(const std::string& path, int flags, struct statx& status) {
    constexpr unsigned wanted = STATX_TYPE | STATX_INO | STATX_BTIME | STATX_MNT_ID;
    return statx(AT_FDCWD, path.c_str(), flags, wanted, &status) == 0;
}

bool isOnOneMount(const struct statx& one, const struct statx& other) {
    return one.stx_dev_major == other.stx_dev_major && one.stx_dev_minor == other.stx_dev_minor &&
           one.stx_mnt_id == other.stx_mnt_id;
}

/// A folder, or the nearest one above it that there is.
struct Nearest {
    std::string path;
    struct statx status {};
};

Result<Nearest> nearestTo(const std::string& wanted) {
    Nearest nearest{wanted};
    while (!getState(nearest.path, 0, nearest.status)) {
        const auto slash = nearest.path.rfind('/');
        if (errno != ENOENT || slash == std::string::npos || nearest.path == "/") {
            return std::unexpected(errorFromErrno(errno, wanted));
        }
        nearest.path.resize(slash == 0 ? 1 : slash);
    }
    if (!S_ISDIR(nearest.status.stx_mode)) return std::unexpected(errorFromErrno(ENOTDIR, wanted));
    return nearest;
}

QSError noContainer(int code, const std::string& path, std::string_view why) {
    auto error = errorFromErrno(code, path);
    error.userInfo.emplace(QSDescriptionErrorKey, why);
    return error;
}

}  // namespace

Result<QSURL> AppContainers::URLForContainer(std::string_view identifier,
                                             const std::string& path) const {
    const auto nearest = nearestTo(path);
    if (!nearest) return std::unexpected(nearest.error());
    const auto& storage = files_.nativeStoragePath();
    struct statx own {};
    if (getState(storage, 0, own) && !isOnOneMount(own, nearest->status)) {
        return std::unexpected(
            noContainer(EXDEV, path, "it is on another device or mount than the documents"));
    }
    const std::unique_ptr<char, void (*)(void*)> real(realpath(nearest->path.c_str(), nullptr),
                                                      std::free);
    if (!real) return std::unexpected(errorFromErrno(errno, path));
    const bool holdsStorage = nearest->path == path && isAtOrBelow(storage, real.get());
    if (holdsStorage || isAtOrBelow(real.get(), storage)) {
        return std::unexpected(
            noContainer(EINVAL, path, "it lies in the folder of the documents, or around it"));
    }
    return containerURL(identifier);
}

std::map<std::string, QSError> AppContainers::show(std::span<const BundleRef> bundles) {
    const std::scoped_lock lock(mutex_);
    std::map<std::string, std::string> wanted;
    for (const auto& bundle : bundles) {
        if (!bundle->bundleIdentifier || !bundle->dataContainerURL) continue;
        wanted.emplace(*bundle->bundleIdentifier, bundle->dataContainerPath);
    }
    std::vector<std::string> unwanted;
    for (const auto& [identifier, shown] : shown_) {
        if (!wanted.contains(identifier)) unwanted.push_back(identifier);
    }
    for (const auto& identifier : unwanted) {
        letOut(identifier);
        shown_.erase(identifier);
    }
    std::map<std::string, QSError> failures;
    for (const auto& [identifier, path] : wanted) {
        const auto done = letIn(identifier, path);
        if (done) continue;
        Log::platformLog().write(LogLevel::Error, [&] {
            return "can't show the documents of " + identifier + "; " + done.error().description();
        });
        failures.emplace(identifier, done.error());
        letOut(identifier);
        shown_.insert_or_assign(identifier, Shown{path, {}});
    }
    for (const auto& root : volume_.formerRoots()) removeRoot(root);
    return failures;
}

void AppContainers::lookAgain() {
    const std::scoped_lock lock(mutex_);
    for (const auto& [identifier, shown] : shown_) {
        if (const auto done = letIn(identifier, shown.path); !done) {
            Log::platformLog().write(LogLevel::Debug, [&] {
                return "the documents of " + identifier + " are away; " +
                       done.error().description();
            });
        }
    }
}

Result<void> AppContainers::letIn(const std::string& identifier, const std::string& path) {
    const auto known = shown_.find(identifier);
    if (known != shown_.end() && known->second.path == path && !known->second.state.empty() &&
        known->second.state == stateOf(path)) {
        return {};
    }
    if (auto url = URLForContainer(identifier, path); !url) return std::unexpected(url.error());
    // Opening it anew finds one that took its place.
    if (auto url = files_.addContainer(identifier, path); !url) {
        return std::unexpected(url.error());
    }
    // Taken before it is opened by the volume: what comes between is looked at again.
    auto state = stateOf(path);
    if (auto added = volume_.addRoot(rootURL(identifier)); !added) return added;
    shown_.insert_or_assign(identifier, Shown{path, std::move(state)});
    return {};
}

std::vector<std::uint64_t> AppContainers::stateOf(const std::string& path) {
    std::vector<std::uint64_t> state;
    for (const auto& [folder, flags] :
         {std::pair(path, 0), std::pair(libraryRootInContainer(QSURL::fileURLWithPath(path)).path(),
                                        AT_SYMLINK_NOFOLLOW)}) {
        struct statx status {};
        const bool isKnown = getState(folder, flags, status) && S_ISDIR(status.stx_mode) &&
                             (status.stx_mask & STATX_BTIME) != 0;
        if (!isKnown) return {};
        // An inode number is soon used again, but not within a tick of the clock.
        for (const std::uint64_t part :
             {std::uint64_t{status.stx_dev_major}, std::uint64_t{status.stx_dev_minor},
              std::uint64_t{status.stx_mnt_id}, std::uint64_t{status.stx_ino},
              static_cast<std::uint64_t>(status.stx_btime.tv_sec),
              std::uint64_t{status.stx_btime.tv_nsec}}) {
            state.push_back(part);
        }
    }
    return state;
}

void AppContainers::letOut(const std::string& identifier) {
    removeRoot(rootURL(identifier));
    files_.removeContainer(identifier);
}

void AppContainers::removeRoot(const QSURL& root) {
    const auto done = volume_.removeRoot(root);
    if (done) return;
    Log::platformLog().write(LogLevel::Error, [&] {
        return "can't record that " + root.path() + " has gone; " + done.error().description();
    });
}

}  // namespace platform

#include "platform/fileprovider/AppContainers.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <set>

#include "platform/log/Log.h"

namespace platform {

namespace {

namespace fs = std::filesystem;

bool liesIn(const std::string& path, const std::string& folder) {
    return path.starts_with(folder) && (path.size() == folder.size() || path[folder.size()] == '/');
}

QSURL containerURL(std::string_view identifier) {
    return QSURL::fileURLWithPath(std::string(presentedContainersPath) + "/" +
                                  std::string(identifier));
}

QSURL rootURL(std::string_view identifier) {
    return containerURL(identifier).URLByAppendingPathComponent("Documents");
}

/// A folder, or the nearest one above it that there is.
struct Nearest {
    std::string path;
    struct stat status {};
};

Result<Nearest> nearestTo(const std::string& wanted) {
    Nearest nearest{wanted};
    while (stat(nearest.path.c_str(), &nearest.status) != 0) {
        const auto slash = nearest.path.rfind('/');
        if (errno != ENOENT || slash == std::string::npos || nearest.path == "/") {
            return std::unexpected(errorFromErrno(errno, wanted));
        }
        nearest.path.resize(slash == 0 ? 1 : slash);
    }
    if (!S_ISDIR(nearest.status.st_mode)) return std::unexpected(errorFromErrno(ENOTDIR, wanted));
    return nearest;
}

}  // namespace

Result<QSURL> AppContainers::URLForContainer(std::string_view identifier,
                                             const std::string& path) const {
    const auto nearest = nearestTo(path);
    if (!nearest) return std::unexpected(nearest.error());
    const auto& storage = files_.nativeStoragePath();
    struct stat own {};
    if (stat(storage.c_str(), &own) == 0 && own.st_dev != nearest->status.st_dev) {
        return std::unexpected(errorFromErrno(EXDEV, path));
    }
    const std::unique_ptr<char, void (*)(void*)> real(realpath(nearest->path.c_str(), nullptr),
                                                      std::free);
    if (!real) return std::unexpected(errorFromErrno(errno, path));
    const bool holdsStorage = nearest->path == path && liesIn(storage, real.get());
    if (holdsStorage || liesIn(real.get(), storage)) {
        return std::unexpected(errorFromErrno(EINVAL, path));
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
    std::set<std::string> gone;
    for (const auto& [identifier, path] : shown_) {
        if (!wanted.contains(identifier)) gone.insert(identifier);
    }
    for (const auto& identifier : gone) letOut(identifier);
    std::map<std::string, QSError> failures;
    for (const auto& [identifier, path] : wanted) {
        const auto done = letIn(identifier, path, true);
        if (done) {
            shown_.insert_or_assign(identifier, path);
            continue;
        }
        Log::platformLog().write(LogLevel::Error, [&] {
            return "can't show the documents of " + identifier + "; " + done.error().description();
        });
        failures.emplace(identifier, done.error());
        letOut(identifier);
    }
    return failures;
}

void AppContainers::lookAgain() {
    const std::scoped_lock lock(mutex_);
    for (const auto& [identifier, path] : shown_) {
        if (const auto done = letIn(identifier, path, false); !done) {
            Log::platformLog().write(LogLevel::Debug, [&] {
                return "the documents of " + identifier + " are away; " +
                       done.error().description();
            });
        }
    }
}

Result<void> AppContainers::letIn(const std::string& identifier, const std::string& path,
                                  bool makesFolders) {
    if (auto url = URLForContainer(identifier, path); !url) return std::unexpected(url.error());
    if (makesFolders) {
        std::error_code error;
        const bool isNew = fs::create_directories(path, error);
        if (error) return std::unexpected(errorFromErrno(error.value(), path));
        if (isNew) fs::permissions(path, fs::perms::owner_all, error);
    }
    // Opening it anew finds one that took its place.
    if (auto url = files_.addContainer(identifier, path); !url) {
        return std::unexpected(url.error());
    }
    const auto root = rootURL(identifier);
    if (makesFolders) {
        if (auto made = files_.makeFolder(root); !made) return made;
    }
    return volume_.addRoot(root);
}

void AppContainers::letOut(const std::string& identifier) {
    if (const auto done = volume_.removeRoot(rootURL(identifier)); !done) {
        Log::platformLog().write(LogLevel::Error, [&] {
            return "can't record that " + identifier + " has gone; " + done.error().description();
        });
    }
    files_.removeContainer(identifier);
    shown_.erase(identifier);
}

}  // namespace platform

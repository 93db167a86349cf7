#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "tidewell/applibraries/LocalAppLibraryManager.h"

namespace tidewell {

/// The app libraries of the process: the two caches, the manager that follows the registry into the
/// main one, and the manager whose upgrades give the changes that the working set still has to
/// report. Whoever publishes a new set also brings the table of roots and the volume's roots up to
/// it, before anyone can see its version. docs/app-libraries.md has the whole. Any thread.
class AppLibraries {
  public:
    /// Reads both caches and, where the main one is missing or was reset, the registry; from then
    /// on the table and the volume know the roots. Once at a time in a process.
    [[nodiscard]] static std::shared_ptr<AppLibraries> load();
    [[nodiscard]] static std::shared_ptr<AppLibraries> load(LocalAppLibraryManager::Source source);
    /// Empties the table.
    ~AppLibraries();
    AppLibraries(const AppLibraries&) = delete;
    AppLibraries& operator=(const AppLibraries&) = delete;

    /// Follows the registry; true where the set is another one. Fails where it cannot be saved; see
    /// LocalAppLibraryManager. Listeners are called before it returns.
    Result<bool> refresh();
    /// Upgrades the shared manager from the main cache.
    AppLibraryUpgrade upgradeShared();

    [[nodiscard]] const std::shared_ptr<LocalAppLibraryCache>& mainCache() const { return main_; }
    [[nodiscard]] const std::shared_ptr<LocalAppLibraryCache>& workingSetCache() const {
        return workingSet_;
    }

    /// Calls `listener` after each new set, on the thread of the refresh and under no lock, until
    /// the handle goes; a call under way may still end afterwards.
    [[nodiscard]] std::shared_ptr<void> listen(std::function<void()> listener);

  private:
    explicit AppLibraries(LocalAppLibraryManager::Source source);

    // Constant after construction; each has its own synchronisation.
    LocalAppLibraryManager::Source source_;
    std::shared_ptr<LocalAppLibraryCache> main_;
    std::shared_ptr<LocalAppLibraryCache> workingSet_;
    std::unique_ptr<LocalAppLibraryManager> mainManager_;
    std::unique_ptr<LocalAppLibraryManager> sharedManager_;

    std::mutex mutex_;
    std::vector<std::weak_ptr<std::function<void()>>> listeners_;  // guarded by mutex_
};

}  // namespace tidewell

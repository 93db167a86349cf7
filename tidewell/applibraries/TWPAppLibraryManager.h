#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/dispatch/Queue.h"
#include "platform/foundation/QSURL.h"
#include "platform/registry/QLBundleProxy.h"

namespace tidewell {

using namespace platform;

/// The roots of all app libraries, each with its application's record. One generation is immutable.
using AppLibraryRoots = std::map<QSURL, BundleRef>;

/// The process-wide table of app-library roots. Replaced as a whole on its queue; readers take the
/// present generation from any thread and never wait for a replacement under way.
class AppLibraryRootTable {
  public:
    [[nodiscard]] static AppLibraryRootTable& shared();

    [[nodiscard]] std::shared_ptr<const AppLibraryRoots> bundleProxiesByRootURLs() const;

    /// The record whose root is `url` or whose data container is (the root's parent); null if none.
    [[nodiscard]] BundleRef bundleAt(const QSURL& url) const;
    /// The record whose data container holds `url` or is it; null if none. Whole components count.
    [[nodiscard]] BundleRef bundleContaining(const QSURL& url) const;

    /// Returns when readers see `roots`. Not to be called on queue().
    void replace(AppLibraryRoots roots);

    /// "tidewell.app-library-manager".
    [[nodiscard]] const SerialQueue& queue() const { return queue_; }

  private:
    AppLibraryRootTable();

    SerialQueue queue_;
    mutable std::mutex mutex_;
    std::shared_ptr<const AppLibraryRoots> roots_;  // guarded by mutex_, written on queue_
};

/// The bridge through which identifier code reads the table.
class TWPAppLibraryManager {
  public:
    /// The roots, sorted by path.
    [[nodiscard]] static std::vector<QSURL> rootURLsForAppLibraries();
};

}  // namespace tidewell

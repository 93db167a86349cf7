#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/dispatch/Queue.h"
#include "platform/foundation/QSError.h"
#include "platform/registry/QLBundleProxy.h"

namespace tidewell {

using namespace platform;

/// A set of app libraries in its order, and the version that names it; 0 with nothing known.
struct AppLibraryContent {
    std::vector<BundleRef> bundleProxies;
    std::uint64_t versionToken = 0;
};

/// One cache file, and the one object of the process over it. Any thread; calls enter the queue and
/// wait, so none is made from a block on it, save load().
class LocalAppLibraryCache {
  public:
    /// `name` ends the queue's label; `path` is native. Nothing is read yet.
    LocalAppLibraryCache(std::string_view name, std::string path);

    /// Takes over what is on disk. False where that is nothing or cannot be used; then the cache is
    /// reset. REQUIRES: on queue().
    bool load();

    [[nodiscard]] AppLibraryContent content() const;
    [[nodiscard]] std::uint64_t versionToken() const;
    void setVersionToken(std::uint64_t versionToken);

    /// Replaces content and file, the file durably; on failure neither is touched.
    Result<void> save(std::vector<BundleRef> bundleProxies, std::uint64_t versionToken);

    /// What is to be saved instead of the present content; none leaves that as it is.
    using Change =
        std::function<std::optional<AppLibraryContent>(const AppLibraryContent& present)>;
    /// Gets what was saved, once the file is written and before anyone sees it.
    using Written = std::function<void(const AppLibraryContent& content)>;
    /// One step that nobody sees half of; true where there was something to save. Both are called
    /// on queue().
    Result<bool> update(const Change& change, const Written& written);

    /// Takes over a set that could not be saved, at version 0, once `show` has it.
    void setUnsaved(const std::vector<BundleRef>& bundleProxies,
                    const std::function<void(const std::vector<BundleRef>&)>& show);

    /// Forgets content and version; the file stays until the next save.
    void reset();

    /// "tidewell.app-library-cache." and the name. May wait for the table of roots and the volume.
    [[nodiscard]] const SerialQueue& queue() const { return queue_; }
    [[nodiscard]] const std::string& cacheURL() const { return cacheURL_; }

  private:
    Result<void> write(const AppLibraryContent& content);
    bool resetAfterFailure();

    // Constant after construction.
    SerialQueue queue_;
    std::string cacheURL_;

    // On queue_.
    std::vector<BundleRef> bundleProxies_;
    std::uint64_t _versionToken = 0;
};

}  // namespace tidewell

#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/fileprovider/QSFileProviderItem.h"
#include "tidewell/applibraries/LocalAppLibraryCache.h"
#include "tidewell/applibraries/TWPAppLibraryManager.h"

namespace tidewell {

/// What an upgrade did. The caller notifies others of it, once it has left the queue.
struct AppLibraryUpgrade {
    bool changed = false;
    std::uint64_t versionToken = 0;    ///< where the manager stands now
    std::vector<BundleRef> lost = {};  ///< libraries that were there before

    [[nodiscard]] std::vector<std::string> removedIdentifiers() const;  ///< "#" and the domain
    [[nodiscard]] std::vector<std::string> domains() const;             ///< of the search index
};

/// One view of the set of app libraries, at one version, over one of the two caches. It moves when
/// it is asked to, and only then. Any thread.
class LocalAppLibraryManager {
  public:
    /// Takes over what the cache holds now.
    explicit LocalAppLibraryManager(std::shared_ptr<LocalAppLibraryCache> cacheSource);

    [[nodiscard]] std::uint64_t versionToken() const;
    [[nodiscard]] AppLibraryRoots bundleProxiesByRootURLs() const;
    /// Both at once.
    [[nodiscard]] AppLibraryContent content() const;
    /// An item for each library whose folder is there, as it is now. Blocks for the disk.
    [[nodiscard]] std::vector<ItemRef> appLibraryItems() const;
    /// The same by identifier, and one of them; null where no library has that identifier.
    [[nodiscard]] std::map<std::string, ItemRef> appLibrariesByItemIDs() const;
    [[nodiscard]] ItemRef appLibraryWithItemID(std::string_view itemID) const;

    /// The applications that are to be app libraries, in order. May block.
    using Source = std::function<std::vector<BundleRef>()>;
    /// Makes exactly these the roots of the tree.
    using Show = std::function<void(const std::vector<BundleRef>& bundles)>;
    /// Brings the cache up to the source and answers whether the set is another one. It is saved
    /// before it is shown, so that a process that ends in between is made good by showing what was
    /// saved. A failure to save is logged and returned, and the set stays as it was. Only where
    /// none is known, the new set is shown unsaved, at version 0, until a refresh can save it.
    Result<bool> refresh(const Source& source, const Show& show);

    /// Takes over the present content of the main cache. None, and nothing is taken over, where
    /// the manager stands beyond `requiredVersion`: what it holds was then never recorded.
    std::optional<AppLibraryUpgrade> upgradeFromMainCache(
        const LocalAppLibraryCache& mainCache, std::optional<std::uint64_t> requiredVersion = {});

    /// "tidewell.app-library-manager", one for each manager. May wait for a cache's queue.
    [[nodiscard]] const SerialQueue& queue() const { return queue_; }

  private:
    void adopt(const AppLibraryContent& content);

    // Constant after construction.
    std::shared_ptr<LocalAppLibraryCache> cacheSource_;
    SerialQueue queue_;

    // On queue_.
    std::uint64_t versionToken_ = 0;
    AppLibraryRoots bundleProxiesByRootURLs_;
};

/// Each record under its library's root; records without a data container are left out.
[[nodiscard]] AppLibraryRoots rootsOf(const std::vector<BundleRef>& bundles);

/// The items of the libraries, named as the registry names their applications now. One that cannot
/// be made is logged and left out.
[[nodiscard]] std::vector<ItemRef> itemsOf(const AppLibraryRoots& roots);

/// The identifier and the container, for the log.
[[nodiscard]] std::string descriptionOf(const QLBundleProxy& bundle);

}  // namespace tidewell

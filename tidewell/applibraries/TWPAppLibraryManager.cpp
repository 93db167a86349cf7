#include "tidewell/applibraries/TWPAppLibraryManager.h"

#include "platform/tree/PathRelation.h"

namespace tidewell {

AppLibraryRootTable::AppLibraryRootTable()
    : queue_("tidewell.app-library-manager"), roots_(std::make_shared<const AppLibraryRoots>()) {}

AppLibraryRootTable& AppLibraryRootTable::shared() {
    // Never destroyed: workers may read it while the process ends.
    static AppLibraryRootTable& table = *new AppLibraryRootTable;
    return table;
}

std::shared_ptr<const AppLibraryRoots> AppLibraryRootTable::bundleProxiesByRootURLs() const {
    const std::scoped_lock lock(mutex_);
    return roots_;
}

BundleRef AppLibraryRootTable::bundleAt(const QSURL& url) const {
    const auto roots = bundleProxiesByRootURLs();
    for (const auto& [root, bundle] : *roots) {
        if (root == url || root.URLByDeletingLastPathComponent() == url) return bundle;
    }
    return nullptr;
}

BundleRef AppLibraryRootTable::bundleContaining(const QSURL& url) const {
    const auto roots = bundleProxiesByRootURLs();
    for (const auto& [root, bundle] : *roots) {
        if (isAtOrBelow(url.path(), root.URLByDeletingLastPathComponent().path())) return bundle;
    }
    return nullptr;
}

void AppLibraryRootTable::replace(AppLibraryRoots roots) {
    queue_.sync([&] {
        auto generation = std::make_shared<const AppLibraryRoots>(std::move(roots));
        const std::scoped_lock lock(mutex_);
        roots_ = std::move(generation);
    });
}

std::vector<QSURL> TWPAppLibraryManager::rootURLsForAppLibraries() {
    std::vector<QSURL> urls;
    const auto roots = AppLibraryRootTable::shared().bundleProxiesByRootURLs();
    urls.reserve(roots->size());
    for (const auto& [root, bundle] : *roots) urls.push_back(root);
    return urls;
}

}  // namespace tidewell

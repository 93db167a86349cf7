#include "tidewell/applibraries/LocalAppLibraryManager.h"

#include <algorithm>

#include "platform/fileprovider/Platform.h"
#include "platform/tree/TreeLayout.h"
#include "tidewell/common/Logging.h"
#include "tidewell/identity/TWPFileObjectIdentifier.h"
#include "tidewell/items/LocalAppLibraryItem.h"

namespace tidewell {

namespace {

QSURL rootOf(const QLBundleProxy& bundle) {
    return libraryRootInContainer(*bundle.dataContainerURL);
}

/// The folder counts too: an application that was renamed may get another one under its URL.
bool areIdentical(const std::vector<BundleRef>& a, const std::vector<BundleRef>& b) {
    return std::ranges::equal(a, b, [](const BundleRef& left, const BundleRef& right) {
        return left->dataContainerURL == right->dataContainerURL &&
               left->dataContainerPath == right->dataContainerPath;
    });
}

/// The record with the name that its application has now.
QLBundleProxy renamed(const QLBundleProxy& bundle) {
    auto copy = bundle;
    const auto present = QLApplicationWorkspace::defaultWorkspace().bundleProxyForIdentifier(
        bundle.bundleIdentifier.value_or(""));
    if (present && present->bundleIdentifier == bundle.bundleIdentifier) {
        copy.displayName = present->displayName;
    }
    return copy;
}

/// Beyond every version that was given out, this one's and those of a main cache that was lost.
std::uint64_t versionAfter(std::uint64_t present) {
    return std::max(present, Platform::current().volume().currentEventID()) + 1;
}

}  // namespace

std::vector<std::string> AppLibraryUpgrade::removedIdentifiers() const {
    std::vector<std::string> identifiers;
    identifiers.reserve(lost.size());
    for (const auto& bundle : lost) identifiers.push_back(appLibraryIdentifier(*bundle));
    return identifiers;
}

std::vector<std::string> AppLibraryUpgrade::domains() const {
    std::vector<std::string> domains;
    domains.reserve(lost.size());
    for (const auto& bundle : lost) domains.push_back(bundle->bundleIdentifier.value_or(""));
    return domains;
}

AppLibraryRoots rootsOf(const std::vector<BundleRef>& bundles) {
    AppLibraryRoots roots;
    for (const auto& bundle : bundles) {
        if (bundle->dataContainerURL) roots.emplace(rootOf(*bundle), bundle);
    }
    return roots;
}

std::vector<ItemRef> itemsOf(const AppLibraryRoots& roots) {
    std::vector<ItemRef> items;
    for (const auto& [root, bundle] : roots) {
        if (auto item = LocalAppLibraryItem::initFrom(renamed(*bundle))) {
            items.push_back(std::move(item));
            continue;
        }
        logError([&] { return "can't create app library for " + descriptionOf(*bundle); });
    }
    return items;
}

std::string descriptionOf(const QLBundleProxy& bundle) {
    return bundle.bundleIdentifier.value_or("(null)") + " at " +
           (bundle.dataContainerURL ? bundle.dataContainerURL->path() : std::string("(null)"));
}

LocalAppLibraryManager::LocalAppLibraryManager(std::shared_ptr<LocalAppLibraryCache> cacheSource)
    : cacheSource_(std::move(cacheSource)), queue_("tidewell.app-library-manager") {
    const auto content = cacheSource_->content();
    for (const auto& bundle : content.bundleProxies) {
        if (bundle->dataContainerURL) continue;
        logError(
            [&] { return "can't create app library from bundle proxy " + descriptionOf(*bundle); });
    }
    adopt(content);
}

void LocalAppLibraryManager::adopt(const AppLibraryContent& content) {
    versionToken_ = content.versionToken;
    bundleProxiesByRootURLs_ = rootsOf(content.bundleProxies);
}

std::uint64_t LocalAppLibraryManager::versionToken() const {
    std::uint64_t versionToken = 0;
    queue_.sync([&] { versionToken = versionToken_; });
    return versionToken;
}

AppLibraryRoots LocalAppLibraryManager::bundleProxiesByRootURLs() const {
    AppLibraryRoots roots;
    queue_.sync([&] { roots = bundleProxiesByRootURLs_; });
    return roots;
}

AppLibraryContent LocalAppLibraryManager::content() const {
    AppLibraryContent content;
    queue_.sync([&] {
        content.versionToken = versionToken_;
        for (const auto& [root, bundle] : bundleProxiesByRootURLs_) {
            content.bundleProxies.push_back(bundle);
        }
    });
    return content;
}

std::vector<ItemRef> LocalAppLibraryManager::appLibraryItems() const {
    return itemsOf(bundleProxiesByRootURLs());
}

std::map<std::string, ItemRef> LocalAppLibraryManager::appLibrariesByItemIDs() const {
    std::map<std::string, ItemRef> items;
    for (auto& item : appLibraryItems()) items.emplace(item->itemIdentifier(), item);
    return items;
}

ItemRef LocalAppLibraryManager::appLibraryWithItemID(std::string_view itemID) const {
    for (auto& item : appLibraryItems()) {
        if (item->itemIdentifier() == itemID) return item;
    }
    return nullptr;
}

Result<bool> LocalAppLibraryManager::refresh(const Source& source, const Show& show) {
    const LogSection section("refreshing app libraries");
    Result<bool> updated = false;
    queue_.sync([&] {
        auto bundles = source();
        updated = cacheSource_->update(
            [&](const AppLibraryContent& present) -> std::optional<AppLibraryContent> {
                // A version of 0 names nothing, not even the empty set.
                if (present.versionToken != 0 && areIdentical(present.bundleProxies, bundles)) {
                    logInfo("bundle proxies are identical to previous version");
                    return std::nullopt;
                }
                return AppLibraryContent{bundles, versionAfter(present.versionToken)};
            },
            [&](const AppLibraryContent& content) { show(content.bundleProxies); });
        if (!updated) {
            logError(
                [&] { return "can't refresh app libraries;" + updated.error().description(); });
            if (cacheSource_->versionToken() != 0) return;
            cacheSource_->setUnsaved(bundles, show);
        }
        if (updated && !*updated) return;
        adopt(cacheSource_->content());
        logInfo([&] { return "main cache version token is now " + std::to_string(versionToken_); });
    });
    return updated;
}

std::optional<AppLibraryUpgrade> LocalAppLibraryManager::upgradeFromMainCache(
    const LocalAppLibraryCache& mainCache, std::optional<std::uint64_t> requiredVersion) {
    const LogSection section("upgrading content from main cache");
    std::optional<AppLibraryUpgrade> upgrade;
    queue_.sync([&] {
        if (requiredVersion && versionToken_ > *requiredVersion) return;
        const auto content = mainCache.content();
        upgrade = AppLibraryUpgrade{.versionToken = content.versionToken};
        // Version 0 may name several sets, none of which could be saved.
        if (versionToken_ == content.versionToken && versionToken_ != 0) return;
        if (versionToken_ > content.versionToken) {
            logError([&] {
                return "version token shouldn't be greater than the main's cache version (" +
                       std::to_string(versionToken_) + " vs " +
                       std::to_string(content.versionToken) + "); manager over " +
                       cacheSource_->cacheURL();
            });
        }
        const auto before = std::move(bundleProxiesByRootURLs_);
        const auto version = versionToken_;
        adopt(content);
        if (version == versionToken_ && before == bundleProxiesByRootURLs_) return;
        for (const auto& [root, bundle] : before) {
            if (!bundleProxiesByRootURLs_.contains(root)) upgrade->lost.push_back(bundle);
        }
        upgrade->changed = true;
    });
    return upgrade;
}

}  // namespace tidewell

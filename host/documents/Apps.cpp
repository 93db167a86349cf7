#include "host/documents/Apps.h"

#include <algorithm>
#include <cerrno>
#include <set>
#include <utility>

#include "platform/fileprovider/QSFileProviderItem.h"

namespace host {

using platform::Result;

Result<std::vector<AppRecord>> Apps::list(bool all) {
    std::vector<AppRecord> apps;
    std::set<std::string> shown;
    const std::string root(platform::QSFileProviderRootContainerItemIdentifier);
    auto listed = service_.list(root, Order::ByName, [&](const ItemRecord& item) {
        // Libraries stand before all documents.
        if (!item.isContainer || !item.appContainerBundleIdentifier) return false;
        shown.insert(*item.appContainerBundleIdentifier);
        apps.push_back({.bundleIdentifier = *item.appContainerBundleIdentifier,
                        .name = item.filename,
                        .isShown = true,
                        .root = item.path,
                        .childItemCount = item.childItemCount});
        return true;
    });
    if (!listed) return std::unexpected(std::move(listed.error()));
    std::ranges::sort(apps, {}, &AppRecord::bundleIdentifier);
    if (!all) return apps;
    auto installed = service_.session().applications();
    if (!installed) return std::unexpected(std::move(installed.error()));
    std::ranges::sort(*installed, {}, &AppRecord::bundleIdentifier);
    for (auto& app : *installed) {
        if (!shown.insert(app.bundleIdentifier).second) continue;
        if (app.reason.empty()) app.reason = "its documents folder cannot be shown; see the log";
        apps.push_back(std::move(app));
    }
    return apps;
}

Result<AppRecord> Apps::decide(const std::string& identifier, Override decision) {
    if (auto set = service_.session().setOverride(identifier, decision); !set) {
        return std::unexpected(std::move(set.error()));
    }
    auto apps = list(true);
    if (!apps) return std::unexpected(std::move(apps.error()));
    const auto found = std::ranges::find(*apps, identifier, &AppRecord::bundleIdentifier);
    if (found == apps->end()) return std::unexpected(platform::errorFromErrno(ENOENT));
    return std::move(*found);
}

}  // namespace host

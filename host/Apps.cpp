#include "host/Apps.h"

#include <algorithm>
#include <cerrno>
#include <set>
#include <utility>

#include "platform/fileprovider/Platform.h"

namespace host {

using platform::QLApplicationWorkspace;
using platform::Result;

namespace {

std::string reasonOf(const platform::QLApplicationProxy& app) {
    if (app.containerTrouble) return *app.containerTrouble;
    if (app.supportsDocumentBrowser || (app.supportsOpenInPlace && app.fileSharingEnabled))
        return {};
    if (app.hasOverride) return "the user keeps it out";
    return "it does not offer its documents";
}

std::vector<AppRecord> installedApps(const QLApplicationWorkspace& workspace) {
    std::vector<AppRecord> apps;
    for (const auto type :
         {platform::QLApplicationType::User, platform::QLApplicationType::System}) {
        workspace.enumerateApplicationsOfType(type, [&](const platform::ApplicationRef& app) {
            const auto identifier = app->bundleIdentifier.value_or("");
            apps.push_back({.bundleIdentifier = identifier,
                            .name = app->localizedName().value_or(identifier),
                            .reason = reasonOf(*app)});
        });
    }
    return apps;
}

}  // namespace

AppRegistry AppRegistry::ofPlatform(std::function<void()> refresh) {
    return {[] { return installedApps(platform::Platform::current().workspace()); },
            [](const std::string& identifier, Override decision) {
                using Given = QLApplicationWorkspace::Override;
                return platform::Platform::current().workspace().setOverride(
                    identifier, decision == Override::Allow ? Given::Allow : Given::Deny);
            },
            std::move(refresh)};
}

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
    auto installed = registry_.installed();
    std::ranges::sort(installed, {}, &AppRecord::bundleIdentifier);
    for (auto& app : installed) {
        if (!shown.insert(app.bundleIdentifier).second) continue;
        if (app.reason.empty()) app.reason = "its documents folder cannot be shown; see the log";
        apps.push_back(std::move(app));
    }
    return apps;
}

Result<AppRecord> Apps::decide(const std::string& identifier, AppRegistry::Override decision) {
    if (auto set = registry_.setOverride(identifier, decision); !set) {
        return std::unexpected(std::move(set.error()));
    }
    registry_.refresh();
    auto apps = list(true);
    if (!apps) return std::unexpected(std::move(apps.error()));
    const auto found = std::ranges::find(*apps, identifier, &AppRecord::bundleIdentifier);
    if (found == apps->end()) return std::unexpected(platform::errorFromErrno(ENOENT));
    return std::move(*found);
}

}  // namespace host

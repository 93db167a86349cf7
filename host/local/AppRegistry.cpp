#include "host/local/AppRegistry.h"

#include <utility>

#include "platform/fileprovider/Platform.h"

namespace host {

using platform::QLApplicationWorkspace;

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

}  // namespace host

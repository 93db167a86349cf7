#include "tidewell/provider/InstalledApps.h"

#include "platform/fileprovider/Platform.h"
#include "tidewell/applibraries/TWPAppLibraryManager.h"
#include "tidewell/common/Logging.h"

namespace tidewell {

void refreshInstalledApps() {
    const LogSection section("refreshing installed apps");
    std::vector<BundleRef> kept;
    for (const auto type : {QLApplicationType::User, QLApplicationType::System}) {
        Platform::current().workspace().enumerateApplicationsOfType(
            type, [&](const ApplicationRef& bundle) {
                if (!bundle->dataContainerURL) return;
                if (bundle->supportsDocumentBrowser ||
                    (bundle->supportsOpenInPlace && bundle->fileSharingEnabled)) {
                    kept.push_back(bundle);
                }
            });
    }
    const auto failures = Platform::current().containers().show(kept);
    AppLibraryRoots roots;
    for (const auto& bundle : kept) {
        if (failures.contains(*bundle->bundleIdentifier)) continue;
        roots.emplace(bundle->dataContainerURL->URLByAppendingPathComponent("Documents"), bundle);
    }
    const bool hasLibraries = !roots.empty();
    AppLibraryRootTable::shared().replace(std::move(roots));
    // What lies in a library could not be reached before it was known.
    if (hasLibraries) Platform::current().unfinished().finish();
}

}  // namespace tidewell

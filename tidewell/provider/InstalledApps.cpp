#include "tidewell/provider/InstalledApps.h"

#include "platform/fileprovider/Platform.h"
#include "tidewell/applibraries/TWPAppLibraryManager.h"
#include "tidewell/common/Logging.h"

namespace tidewell {

void refreshInstalledApps() {
    const LogSection section("refreshing installed apps");
    AppLibraryRoots roots;
    for (const auto& bundle : Platform::current().workspace().allBundles()) {
        if (!bundle->dataContainerURL) continue;
        roots.emplace(bundle->dataContainerURL->URLByAppendingPathComponent("Documents"), bundle);
    }
    AppLibraryRootTable::shared().replace(std::move(roots));
}

}  // namespace tidewell

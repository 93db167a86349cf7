#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "tests/support/InstalledPlatform.h"
#include "tidewell/applibraries/AppLibraries.h"

namespace tests {

/// A platform whose app libraries are what a test says they are.
class FedAppLibraries : public InstalledPlatform {
  protected:
    void load() {
        libraries = tidewell::AppLibraries::load([this] {
            ++retrievals;
            const std::scoped_lock lock(mutex);
            return fed;
        });
    }
    void feed(const std::vector<std::string>& identifiers) {
        const std::scoped_lock lock(mutex);
        fed.clear();
        for (const auto& identifier : identifiers) {
            platform::QLBundleProxy bundle;
            bundle.bundleIdentifier = identifier;
            bundle.dataContainerURL = platform::QSURL::fileURLWithPath(
                std::string(platform::presentedContainersPath) + "/" + identifier);
            bundle.displayName = "Name of " + identifier;
            bundle.dataContainerPath = scratch / ("containers/" + identifier);
            scratch.makeFolder("containers/" + identifier + "/Documents");
            fed.push_back(std::make_shared<const platform::QLBundleProxy>(bundle));
        }
    }
    void setApps(const std::vector<std::string>& identifiers) {
        feed(identifiers);
        (void)libraries->refresh();
    }
    void libraryFile(const std::string& below) const {
        (void)scratch.makeFile("containers/" + below);
    }
    [[nodiscard]] std::string cacheFile(bool isMain) const {
        return scratch / (isMain ? "apps/Tidewell/app-libraries.plist"
                                 : "apps/Tidewell/searchable-app-libraries.plist");
    }

    std::mutex mutex;
    std::vector<platform::BundleRef> fed;  // guarded by mutex
    std::atomic<int> retrievals = 0;
    std::shared_ptr<tidewell::AppLibraries> libraries;
};

}  // namespace tests

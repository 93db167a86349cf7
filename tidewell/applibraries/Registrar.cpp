#include "tidewell/applibraries/Registrar.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <set>

#include "platform/fileprovider/Platform.h"
#include "platform/foundation/QSUnicode.h"
#include "platform/tree/TreeLayout.h"
#include "tidewell/common/Logging.h"

namespace tidewell {

namespace {

bool supportsDocuments(const QLBundleProxy& bundle) {
    constexpr std::array keys{supportsDocumentBrowserInfoKey};
    if (bundle.objectsForInfoDictionaryKeys(keys).boolForKey(supportsDocumentBrowserInfoKey)) {
        return true;
    }
    return bundle.supportsOpenInPlace && bundle.fileSharingEnabled;
}

/// With mode 0700, what is above it as is usual.
std::error_code makeDocumentsFolder(const QLBundleProxy& bundle) {
    std::error_code failure;
    const auto folder = std::filesystem::path(bundle.dataContainerPath) / documentsName;
    if (std::filesystem::create_directories(folder, failure)) {
        std::filesystem::permissions(folder, std::filesystem::perms::owner_all, failure);
    }
    return failure;
}

}  // namespace

std::vector<BundleRef> retrieveAppLibraries() {
    const LogSection section("retrieving app libraries from registrar");
    std::vector<BundleRef> kept;
    std::set<std::string> identifiers;
    std::set<std::string> containers;
    const auto consider = [&](const BundleRef& bundle) {
        if (!bundle) return logError("enumerate Application provided nil proxy");
        const auto identifier = bundle->bundleIdentifier.value_or("");
        if (!bundle->dataContainerURL || !supportsDocuments(*bundle) || !isUTF8(identifier) ||
            !isUTF8(bundle->dataContainerPath)) {
            return;
        }
        const auto container = bundle->dataContainerURL->path();
        if (identifiers.contains(identifier) || containers.contains(container)) return;
        if (const auto failure = makeDocumentsFolder(*bundle)) {
            return logError([&] {
                return "can't make the documents folder of " + identifier + "; " +
                       failure.message();
            });
        }
        logDebug([&] { return "add " + identifier; });
        identifiers.insert(identifier);
        containers.insert(container);
        kept.push_back(bundle);
    };
    const auto& workspace = QLApplicationWorkspace::defaultWorkspace();
    for (const auto type : {QLApplicationType::User, QLApplicationType::System}) {
        workspace.enumerateApplicationsOfType(type, consider);
    }
    return kept;
}

}  // namespace tidewell

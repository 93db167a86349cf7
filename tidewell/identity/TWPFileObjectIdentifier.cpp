#include "tidewell/identity/TWPFileObjectIdentifier.h"

#include "platform/fileprovider/DefaultLog.h"
#include "tidewell/common/Utilities.h"

namespace tidewell {

std::string TWPFileObjectIdentifier::fromFileID(std::uint64_t fileID) {
    return "fid=" + std::to_string(fileID);
}

std::string TWPFileObjectIdentifier::fromDocumentID(std::uint64_t documentID) {
    return "did=" + std::to_string(documentID);
}

std::optional<std::string> TWPFileObjectIdentifier::fromAppLibraryDataContainerURL(
    const QSURL& url) {
    const auto bundle = proxyAt(url);
    if (!bundle) {
        qp_default_log().write(LogLevel::Error, [&] {
            return "[ERROR] can't find bundle proxy at " + url.description();
        });
        return std::nullopt;
    }
    return appLibraryIdentifier(*bundle);
}

std::string appLibraryIdentifier(const QLBundleProxy& bundle) {
    return "#" + bundle.bundleIdentifier.value_or("(null)");
}

}  // namespace tidewell

#include "tidewell/identity/TWPFileObjectIdentifier.h"

#include <algorithm>
#include <charconv>
#include <limits>

#include "platform/fileprovider/DefaultLog.h"
#include "tidewell/common/Utilities.h"

namespace tidewell {

namespace {

std::int64_t integerValue(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
    if (text.starts_with('+')) {
        text.remove_prefix(1);
        if (text.starts_with('-')) return 0;
    }
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error == std::errc::result_out_of_range) {
        return text.starts_with('-') ? std::numeric_limits<std::int64_t>::min()
                                     : std::numeric_limits<std::int64_t>::max();
    }
    return value;
}

}  // namespace

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

std::optional<ObjectNumber> ObjectNumber::parse(std::string_view identifier) {
    const bool isFile = identifier.starts_with("fid=");
    if (!isFile && !identifier.starts_with("did=")) return std::nullopt;
    return ObjectNumber{isFile ? Kind::File : Kind::Document,
                        static_cast<std::uint64_t>(integerValue(identifier.substr(4)))};
}

std::string appLibraryIdentifier(const QLBundleProxy& bundle) {
    return "#" + bundle.bundleIdentifier.value_or("(null)");
}

}  // namespace tidewell

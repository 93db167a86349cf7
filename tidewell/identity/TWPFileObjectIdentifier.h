#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/QSURL.h"
#include "platform/registry/QLBundleProxy.h"

namespace tidewell {

using namespace platform;

/// The forms of an item identifier beside the host's root identifier. An identifier is a plain
/// string; nothing of the volume is in it.
struct TWPFileObjectIdentifier {
    [[nodiscard]] static std::string fromFileID(std::uint64_t fileID);          ///< "fid=N"
    [[nodiscard]] static std::string fromDocumentID(std::uint64_t documentID);  ///< "did=N"

    /// "#" and the bundle identifier of the application whose library root is at `url`; none, after
    /// an error in the host's log, where there is no such application.
    [[nodiscard]] static std::optional<std::string> fromAppLibraryDataContainerURL(
        const QSURL& url);
};

/// The kind and number of an identifier of the first two forms.
struct ObjectNumber {
    enum class Kind : std::uint8_t { File, Document };
    Kind kind = Kind::File;
    std::uint64_t number = 0;

    /// None for any other text. The number is read as the platform's strings do: blanks, a sign and
    /// digits up to the first other character; 0 without digits; out of range it saturates.
    [[nodiscard]] static std::optional<ObjectNumber> parse(std::string_view identifier);

    friend bool operator==(const ObjectNumber&, const ObjectNumber&) = default;
};

/// "#" and the bundle identifier, "#(null)" for a record that has none.
[[nodiscard]] std::string appLibraryIdentifier(const QLBundleProxy& bundle);

/// Whether the identifier is an app library's.
[[nodiscard]] inline bool isAppLibraryIdentifier(std::string_view identifier) {
    return identifier.starts_with('#');
}

}  // namespace tidewell

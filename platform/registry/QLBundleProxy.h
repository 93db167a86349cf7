#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/foundation/QSURL.h"

namespace platform {

/// One installed application as the registry knows it. Immutable; shared between threads.
struct QLBundleProxy {
    std::optional<std::string> bundleIdentifier;
    std::optional<QSURL> dataContainerURL;  ///< absent for an application without a container
    std::optional<std::string> displayName;

    /// The full name in the user's language; absent where the registry has none.
    [[nodiscard]] std::optional<std::string> localizedName() const { return displayName; }
};

using BundleRef = std::shared_ptr<const QLBundleProxy>;

}  // namespace platform

#pragma once

#include "platform/registry/QLBundleProxy.h"

namespace platform {

/// Who installed an application.
enum class QLApplicationType : std::uint8_t { User = 0, System = 2 };

/// An application record with what only its desktop entry says. Immutable.
struct QLApplicationProxy : QLBundleProxy {
    QLApplicationType applicationType = QLApplicationType::System;
    std::string desktopEntryPath = {};  ///< native
    std::string iconName = {};          ///< of an icon theme, or an absolute path; may be empty
    std::string dataFolder = {};        ///< native; its "icons" may hold icons of that name

    friend bool operator==(const QLApplicationProxy&, const QLApplicationProxy&) = default;
};

using ApplicationRef = std::shared_ptr<const QLApplicationProxy>;

}  // namespace platform

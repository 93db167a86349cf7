#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace host {

/// An installed application: a plain value. Paths are native.
struct AppRecord {
    std::string bundleIdentifier;
    std::string name;
    bool isShown = false;                  ///< as an app library
    std::optional<std::string> root = {};  ///< the library's folder, where it is shown
    std::optional<std::uint16_t> childItemCount = {};
    std::string reason = {};  ///< why it is not shown; else empty

    friend bool operator==(const AppRecord&, const AppRecord&) = default;
};

/// What the user has decided about an application.
enum class Override : std::uint8_t { Allow, Deny };

}  // namespace host

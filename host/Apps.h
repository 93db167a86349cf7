#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "host/DocumentService.h"

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

/// What the service asks of the application registry. Any thread.
struct AppRegistry {
    enum class Override : std::uint8_t { Allow, Deny };

    /// All that are installed, each with the reason for which the registry alone would not show it,
    /// empty where it would.
    std::function<std::vector<AppRecord>()> installed;
    std::function<platform::Result<void>(const std::string& identifier, Override)> setOverride;
    /// Returns when the extension shows what the registry says now.
    std::function<void()> refresh;

    /// That of the installed platform, with the extension's `refresh`.
    [[nodiscard]] static AppRegistry ofPlatform(std::function<void()> refresh);
};

/// Applications as the user sees and decides about them. Calls block for the extension.
class Apps {
  public:
    /// `service` must outlive this.
    Apps(DocumentService& service, AppRegistry registry)
        : service_(service), registry_(std::move(registry)) {}

    /// The libraries that are shown, sorted by identifier; with `all` also the other installed
    /// applications, behind them.
    [[nodiscard]] platform::Result<std::vector<AppRecord>> list(bool all);

    /// What the user decides about an installed application is kept; the answer is how it stands
    /// then. The error satisfies meansNoSuchItem where it is not installed.
    [[nodiscard]] platform::Result<AppRecord> decide(const std::string& identifier,
                                                     AppRegistry::Override decision);

  private:
    DocumentService& service_;
    AppRegistry registry_;
};

}  // namespace host

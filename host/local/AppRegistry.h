#pragma once

#include <functional>
#include <string>
#include <vector>

#include "host/session/AppRecord.h"
#include "platform/foundation/QSError.h"

namespace host {

/// What a session asks of the application registry. Any thread.
struct AppRegistry {
    /// All that are installed, each with the reason for which the registry alone would not show it,
    /// empty where it would.
    std::function<std::vector<AppRecord>()> installed;
    std::function<platform::Result<void>(const std::string& identifier, Override)> setOverride;
    /// Returns when the extension shows what the registry says now.
    std::function<void()> refresh;

    /// That of the installed platform, with the extension's `refresh`.
    [[nodiscard]] static AppRegistry ofPlatform(std::function<void()> refresh);
};

}  // namespace host

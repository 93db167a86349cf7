#pragma once

#include <string>
#include <string_view>

#include "platform/foundation/QSError.h"
#include "platform/registry/DesktopEntry.h"

namespace platform {

/// What the user says instead of an application: in a folder, a key file of its identifier with
/// this suffix and the flags of a desktop entry; docs/stored-formats.md has it.
inline constexpr std::string_view overrideSuffix = ".override";

/// Replaces or makes the file, durably and at once for readers. REQUIRES: a bundle identifier.
Result<void> writeOverride(const std::string& folder, std::string_view identifier,
                           const SupportFlags& flags);
/// One that is not there is removed already.
Result<void> removeOverride(const std::string& folder, std::string_view identifier);

}  // namespace platform

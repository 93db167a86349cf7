#pragma once

#include <source_location>
#include <string_view>

namespace platform {

/// Ends the process after a broken invariant: writes `message` and the place to the fatal-error
/// hook (standard error until one is installed), then aborts.
[[noreturn]] void fatalError(std::string_view message,
                             std::source_location location = std::source_location::current());

/// Replaces where fatalError reports before it aborts; the logger installs itself here. The hook
/// runs on the failing thread and must not allocate more than it can help.
using FatalErrorHook = void (*)(std::string_view message, const std::source_location& location);
void setFatalErrorHook(FatalErrorHook hook);

}  // namespace platform

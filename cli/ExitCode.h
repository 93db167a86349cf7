#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/foundation/QSError.h"

namespace cli {

/// How the command ends. The numbers are part of the interface.
enum class ExitCode : std::uint8_t {
    Done = 0,
    Failed = 1,
    Usage = 2,
    NoSuchItem = 3,
    Expired = 4,
    MayBeDone = 5
};

/// The domain of mistakes on the command line; the code is ExitCode::Usage.
inline constexpr std::string_view usageErrorDomain = "Tidewell.UsageError";

[[nodiscard]] platform::QSError usageError(std::string_view message);

[[nodiscard]] ExitCode exitCodeFor(const platform::QSError& error);

/// The one line for standard error, its end included. `subject` is what the user named, or empty.
[[nodiscard]] std::string errorLine(const platform::QSError& error, std::string_view subject,
                                    bool json);

}  // namespace cli

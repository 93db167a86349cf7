#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/foundation/QSError.h"

// Names of entries as clients give them and as we pick them. Text only; any thread.

namespace platform {

/// What every name begins with under which an operation keeps things that nobody else should see.
inline constexpr std::string_view hiddenNamePrefix = ".tidewell-";

/// The one check of a name that came from a client: EINVAL for one that is empty, "." or "..",
/// holds a "/" or a NUL, or begins as our hidden names do; ENAMETOOLONG beyond 255 bytes. Any other
/// bytes are a name.
[[nodiscard]] Result<void> checkName(std::string_view name);

/// "name 2.ext" for number 2, shortened where it would exceed 255 bytes, never inside a UTF-8
/// sequence. What stands behind the last dot counts as an extension if it looks like one.
[[nodiscard]] std::string numberedName(std::string_view name, std::uint64_t number);

/// The number to try after `attempt` names (1: the bare one) were taken: 2, 3 and so on, then any
/// one of more and more, so that thousands of equal names do not cost thousands of tries each.
[[nodiscard]] std::uint64_t nextNumber(std::uint64_t attempt);

/// A name that no one else has: the prefix and `token`.
[[nodiscard]] std::string hiddenName(std::string_view token);

/// 20 random characters.
[[nodiscard]] std::string randomToken();

}  // namespace platform

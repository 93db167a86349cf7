#pragma once

#include <functional>

namespace cli {

/// Calls `isThere` once a second until it says so. False where an interruption came first, or
/// the reader of the standard output has closed it. Blocks; one at a time.
[[nodiscard]] bool waitForStorage(const std::function<bool()>& isThere);

}  // namespace cli

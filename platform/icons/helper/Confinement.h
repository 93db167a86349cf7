#pragma once

namespace platform {

/// Limits what this process may use and do, for good: memory, processor time, descriptors; no file
/// is written, none but shared data is opened, no socket, process or program is made. False where
/// one of the limits that every kernel has could not be set.
[[nodiscard]] bool confineThisProcess();

}  // namespace platform

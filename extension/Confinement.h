#pragma once

namespace tidewell {

/// Takes from this process, for good, what an extension never does: get privileges from programs
/// that have them, use the network, look into or steer other processes, mount, enter namespaces,
/// load code into the kernel, write to a terminal's input, leave a core. Calls for these fail with
/// EPERM. False where the kernel has no filter of system calls. REQUIRES: no other thread runs yet.
[[nodiscard]] bool confineThisProcess();

}  // namespace tidewell

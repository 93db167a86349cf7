#pragma once

#include <vector>

#include "platform/registry/QLBundleProxy.h"

namespace tidewell {

using namespace platform;

/// The installed applications that are app libraries: those that support the document browser, or
/// open documents in place and share their files. First those of the user, then those of the
/// system, each sorted by identifier; one for an identifier and one for a container. Their
/// "Documents" folders are made where they are missing; one that cannot be is left out. Blocks for
/// the registry and the disk.
[[nodiscard]] std::vector<BundleRef> retrieveAppLibraries();

}  // namespace tidewell

#pragma once

#include <string>

#include "platform/foundation/QSError.h"
#include "platform/foundation/QSProgress.h"

namespace platform {

/// Removes the entry `name` of the open folder (O_PATH will do) with all that is below it. No link
/// is followed and no other mount entered (EBUSY or EXDEV). Ends with the first failure, or with
/// ECANCELED, and leaves the rest. An entry that is not there is removed already. Blocks for the
/// file system; any thread.
Result<void> removeTree(int folder, const std::string& name, QSProgress& progress);

}  // namespace platform

#pragma once

#include <memory>
#include <vector>

#include "platform/foundation/QSError.h"
#include "platform/foundation/QSURL.h"

// An object may have several names (hard links) and one identifier. Here is what lets a caller say
// which name it means.

namespace platform {

/// The places of one object below the roots, checked on the disk.
struct ObjectNames {
    std::vector<QSURL> outsideTrash;
    std::vector<QSURL> inTrash;
};

/// The names of what is at `url`, hidden ones too. Blocks for the disk and, only where the object
/// has several links, until everything that happened before the call is known. ENOENT where nothing
/// is there. Any thread.
[[nodiscard]] Result<ObjectNames> namesOfObject(const QSURL& url);

/// As long as the handle lives, which must end on this thread, this thread's look-ups of the object
/// that is at `place` now answer with this place or not at all. Fails where the object cannot be
/// read, ENOENT where it is missing.
[[nodiscard]] Result<std::shared_ptr<void>> preferPlace(const QSURL& place);

}  // namespace platform

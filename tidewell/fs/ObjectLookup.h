#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/volume/EventHistory.h"
#include "tidewell/fs/ContainerCover.h"

namespace tidewell {

/// Where the object that an event is about is now.
struct ObjectLookup {
    std::shared_ptr<LocalItem> shown;  ///< null where the container does not show it
    /// An event is to come that says where it is, or that it was removed.
    bool isOnTheMove = false;
    /// Where the index has it and it is not.
    std::vector<QSURL> missed;
};

/// Looks on the disk, at the places where the index has the object, for one with that identifier.
/// Blocks for the look. An error where what stands there could not be identified.
[[nodiscard]] Result<ObjectLookup> lookUp(const FSEvent& event, const std::string& identifier,
                                          const ContainerCover& cover);

}  // namespace tidewell

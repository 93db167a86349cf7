#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/files/VolumeFingerprint.h"
#include "platform/foundation/QSUUID.h"
#include "platform/volume/FolderWitness.h"
#include "platform/volume/Witness.h"

namespace platform {

/// The facts that a store keeps about itself.
struct StoreState {
    QSUUID store;
    QSUUID history;
    HighWaterMarks marks;
    std::uint64_t floor = 0;  ///< the history knows everything after this event
    /// Inode numbers may have been handed out that the store knows nothing of, so none of an object
    /// that is new to it serves as a file ID any more.
    bool freshOnly = false;
    VolumeFingerprint volume;
    std::string trouble;  ///< why the store was last rebuilt or its history reset; empty = never
    /// An anchor though no event has that ID: where the counter stood when the store was brought
    /// to version 4. 0 = none.
    std::uint64_t start = 0;
};

/// What to do with a store as found (none: missing or damaged) beside its witnesses and the volume.
struct StoreDecision {
    StoreState state;
    bool dropsObjects = false;  ///< the rows are of another volume
    bool isChanged = false;     ///< `state` is to be written
};
/// `damage`: what was wrong with the store, or with some of the rows of the one found; empty =
/// nothing.
[[nodiscard]] StoreDecision decideAboutStore(const std::optional<StoreState>& found,
                                             const std::optional<Witness::Record>& witness,
                                             const std::optional<FolderWitness>& folderWitness,
                                             const VolumeFingerprint& volume,
                                             const std::string& damage);

}  // namespace platform

#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/foundation/QSURL.h"
#include "platform/foundation/QSUUID.h"
#include "platform/volume/EventHistory.h"
#include "tidewell/fs/ContainerCover.h"

namespace tidewell {

using namespace platform;

/// The event service's UUID of the volume that holds the URL; none if the device is unknown or
/// not the service's.
[[nodiscard]] std::optional<QSUUID> volumeUUID(const QSURL& url);

/// The last committed event ID of the history.
[[nodiscard]] std::uint64_t currentFSEventID();

/// The same once all that happened before the call is recorded, so that none of it looks like a
/// change that came later. Does not wait for the comparison at the start. Fails where it cannot be
/// recorded.
[[nodiscard]] Result<std::uint64_t> currentFSEventIDAfterCatchingUp();

/// Whether a folder went elsewhere since that event by which items of the container may have been
/// looked for at a former path: any folder, or for a container that is a single folder, that one
/// and those above it. Takes in what the kernel has reported; fails where that cannot be recorded,
/// and with an expired anchor where the history no longer goes back that far.
[[nodiscard]] Result<bool> foldersHaveMovedSince(std::uint64_t eventID,
                                                 const ContainerCover& cover);

/// What a host is to be given for an error of reading the history: an expired anchor where that no
/// longer goes back far enough.
[[nodiscard]] QSError errorForHistory(const QSError& error);

/// Waits until what happened while nobody watched is found. Fails where that cannot be found or
/// written now.
Result<void> waitUntilHistoryIsKnown();

/// How far a replay that begins now goes: the current event ID, or no limit (the largest number)
/// where what happened while nobody watched has still to be found. That will come behind the
/// present ID, and belongs to the answer.
[[nodiscard]] std::uint64_t endOfHistory();

/// The item identifier of the object that the event is about; none if it never had one.
[[nodiscard]] std::optional<std::string> identifierOf(const FSEvent& event);

}  // namespace tidewell

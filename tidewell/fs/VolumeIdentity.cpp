#include "tidewell/fs/VolumeIdentity.h"

#include <algorithm>
#include <limits>
#include <string>

#include "platform/fileprovider/Platform.h"
#include "tidewell/identity/QSURL+TWPFileObjectIdentifier.h"
#include "tidewell/identity/TWPFileObjectIdentifier.h"

namespace tidewell {

std::optional<QSUUID> volumeUUID(const QSURL& url) {
    const auto device = deviceID(url);
    if (device == 0) return std::nullopt;
    return Platform::current().volume().UUIDForDevice(device);
}

std::uint64_t currentFSEventID() {
    return Platform::current().events().history->currentEventID();
}

std::uint64_t currentFSEventIDAfterCatchingUp() {
    // A failure shows where the history is read.
    auto& volume = Platform::current().volume();
    if (volume.isCaughtUp()) (void)volume.waitUntilSeen();
    return currentFSEventID();
}

bool foldersHaveMovedSince(std::uint64_t eventID) {
    const auto now = currentFSEventIDAfterCatchingUp();
    if (now == eventID) return false;
    const auto events = Platform::current().events().history->eventsAfter(
        eventID, now, std::numeric_limits<std::uint64_t>::max());
    constexpr auto folderMoved = fsEventMoved | fsEventIsFolder;
    return events && std::ranges::any_of(*events, [](const FSEvent& event) {
               return (event.flags & folderMoved) == folderMoved;
           });
}

std::uint64_t endOfHistory() {
    return Platform::current().events().history->isCaughtUp()
               ? currentFSEventID()
               : std::numeric_limits<std::uint64_t>::max();
}

std::optional<std::string> identifierOf(const FSEvent& event) {
    if (event.identifierKind == IdentifierKind::Document) {
        if (event.documentID == 0) return std::nullopt;
        return TWPFileObjectIdentifier::fromDocumentID(event.documentID);
    }
    if (event.fileID == 0) return std::nullopt;
    return TWPFileObjectIdentifier::fromFileID(event.fileID);
}

}  // namespace tidewell

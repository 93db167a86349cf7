#include "tidewell/fs/VolumeIdentity.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <string>

#include "platform/fileprovider/Platform.h"
#include "platform/fileprovider/QSFileProviderError.h"
#include "platform/tree/PathRelation.h"
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

Result<std::uint64_t> currentFSEventIDAfterCatchingUp() {
    auto& volume = Platform::current().volume();
    if (volume.isCaughtUp()) {
        if (auto seen = volume.waitUntilSeen(); !seen) return std::unexpected(seen.error());
    }
    return currentFSEventID();
}

QSError errorForHistory(const QSError& error) {
    const bool isTooOld = error.domain == QSPOSIXErrorDomain && error.code == ESTALE;
    return isTooOld ? syncAnchorExpiredError() : error;
}

Result<bool> foldersHaveMovedSince(std::uint64_t eventID, const ContainerCover& cover) {
    constexpr std::size_t batch = 4096;
    constexpr auto folderMoved = fsEventMoved | fsEventIsFolder;
    const auto now = currentFSEventIDAfterCatchingUp();
    if (!now) return std::unexpected(now.error());
    const auto& container = cover.urls().front().path();
    const auto matters = [&](const FSEvent& event) {
        if ((event.flags & folderMoved) != folderMoved) return false;
        return cover.isRecursive() || isAtOrBelow(container, event.path);
    };
    for (auto after = eventID; after != *now;) {
        const auto events = Platform::current().events().history->eventsAfter(after, *now, batch);
        if (!events) return std::unexpected(errorForHistory(events.error()));
        if (std::ranges::any_of(*events, matters)) return true;
        if (events->size() < batch) break;
        after = events->back().id;
    }
    return false;
}

Result<void> waitUntilHistoryIsKnown() {
    auto& volume = Platform::current().volume();
    return volume.isCaughtUp() ? Result<void>() : volume.waitUntilSeen();
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

#include "tidewell/fs/VolumeIdentity.h"

#include "platform/fileprovider/Platform.h"
#include "tidewell/identity/QSURL+TWPFileObjectIdentifier.h"

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

}  // namespace tidewell

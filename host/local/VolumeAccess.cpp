#include "host/local/VolumeAccess.h"

#include <fcntl.h>

#include <utility>

#include "platform/fileprovider/Platform.h"

namespace host {

namespace {

Health healthOfPlatform() {
    auto now = platform::Platform::current().volume().statistics();
    return {.storageTrouble = std::move(now.storageTrouble),
            .roots = std::move(now.roots),
            .storePath = std::move(now.storePath),
            .storeTrouble = std::move(now.lastTrouble),
            .writeTrouble = std::move(now.writeTrouble),
            .objects = now.objects,
            .indexBytes = now.indexBytes,
            .identityIsWeak = now.identityIsWeak,
            .passedOver = platform::Platform::current().files().passedOverPaths(),
            .isFollowing = now.isFollowing,
            .watches = now.watches,
            .watchLimit = now.watchLimit > 0 ? std::optional(now.watchLimit) : std::nullopt,
            .degradedFolderCount = now.degradedFolderCount,
            .degradedFolders = std::move(now.degradedFolders),
            .lastGap = std::move(now.lastGap),
            .oldestEventID = now.oldestEventID,
            .currentEventID = now.currentEventID,
            .eventCount = now.eventCount,
            .service = {}};
}

}  // namespace

VolumeAccess VolumeAccess::ofPlatform() {
    return {[] { return platform::Platform::current().volume().waitUntilSettled(); },
            healthOfPlatform,
            [](std::chrono::seconds age) {
                const auto limit = platform::Platform::current().volume().clock().limitForAge(age);
                return AgeLimit{limit.wall, limit.safe, limit.clocksDiffer};
            },
            platform::namesOfObject,
            platform::preferPlace,
            [](const platform::QSURL& url) {
                return platform::Platform::current().files().openObject(url, O_RDONLY);
            }};
}

}  // namespace host

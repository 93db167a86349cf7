#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "host/session/Health.h"
#include "platform/fileprovider/ObjectNames.h"
#include "platform/files/FileDescriptor.h"
#include "platform/foundation/QSError.h"

namespace host {

/// What a session asks of the volume besides its items. Any thread.
struct VolumeAccess {
    /// Blocks until everything that happened before the call is in the history.
    std::function<platform::Result<void>()> waitUntilSettled;
    std::function<Health()> health;
    std::function<AgeLimit(std::chrono::seconds age)> limitForAge = {};
    /// As platform::namesOfObject and platform::preferPlace; an item has one name where empty.
    std::function<platform::Result<platform::ObjectNames>(const platform::QSURL&)> names = {};
    std::function<platform::Result<std::shared_ptr<void>>(const platform::QSURL&)> preferPlace = {};
    /// As FileSystem::openObject for reading.
    std::function<platform::Result<platform::FileDescriptor>(const platform::QSURL&)> open = {};

    /// That of the installed platform.
    [[nodiscard]] static VolumeAccess ofPlatform();
};

}  // namespace host

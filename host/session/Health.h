#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/QSDate.h"

namespace host {

/// What serves, where something does: a plain value.
struct ServiceHealth {
    std::string socket;  ///< a native path
    std::uint64_t clients = 0;
    std::int32_t extensionProcess = 0;   ///< 0: there is none just now
    std::uint64_t restarts = 0;          ///< of the extension, since the service began
    std::optional<std::string> lastEnd;  ///< how the extension before this one ended

    friend bool operator==(const ServiceHealth&, const ServiceHealth&) = default;
};

/// How the system is: a plain value. Paths are native.
struct Health {
    std::optional<std::string> storageTrouble;  ///< why the storage cannot be read now
    std::vector<std::string> roots;
    std::string storePath;
    std::optional<std::string> storeTrouble;  ///< why the store was rebuilt by this process
    std::optional<std::string> writeTrouble;  ///< why the store cannot be written to now
    std::uint64_t objects = 0;
    std::uint64_t indexBytes = 0;
    bool identityIsWeak = false;  ///< the file system can give an object's number to another one
    std::vector<std::string> passedOver;  ///< own folders that lie in the storage
    bool isFollowing = false;             ///< changes are watched
    std::uint64_t watches = 0;
    std::optional<std::uint64_t> watchLimit;
    std::uint64_t degradedFolderCount = 0;     ///< folders that should be watched and are not
    std::vector<std::string> degradedFolders;  ///< some of them
    std::optional<std::string> lastGap;        ///< why changes were missed last
    std::uint64_t oldestEventID = 0;           ///< anchors from before it have expired
    std::uint64_t currentEventID = 0;
    std::uint64_t eventCount = 0;
    std::optional<ServiceHealth> service;  ///< none: the process that asked does all itself

    /// What is wrong, in plain words; empty where all is well. A gap in the past is not wrong
    /// (the clients that it concerns got an error), nor is a weak identity.
    [[nodiscard]] std::vector<std::string> problems() const;
};

/// How old something must be to be removed for its age, as dates.
struct AgeLimit {
    platform::QSDate wall;  ///< what the age says by the wall clock
    /// An object with an earlier date is that old however wrong the wall clock was; no date if the
    /// storage has not been known for so long.
    std::optional<platform::QSDate> safe;
    bool clocksDiffer = false;  ///< by more than a day: the wall clock is, or was, wrong
};

}  // namespace host

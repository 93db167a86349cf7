#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/volume/VolumeService.h"

namespace platform {

/// What is known of a document whose object has lost a name, and of the object that stands at that
/// name now. See docs/safe-saves.md.
struct SaveFacts {
    /// The object at the vacated name.
    struct Replacement {
        bool isSameKind = true;          ///< a file where the document was a file, and so on
        bool hasOwnIdentifier = false;   ///< it was reported as an item of its own
        bool isRecent = false;           ///< it appeared less than the rename window earlier
        bool isFromOwnersPlace = false;  ///< the two have exchanged their names
    };

    std::string_view vacatedName = {};
    std::chrono::nanoseconds age{0};  ///< of the vacated name
    /// Everything that happened before the name was vacated has been read, at both ends of a move.
    bool isRead = true;
    bool isByThisProcess = false;  ///< this process removes or moves the document's object itself
    bool isFromScan = false;       ///< it happened while nobody watched
    bool mustDecide = false;       ///< an identifier of one of the two objects is needed now
    /// A name of the document's object; none: it has no name left.
    std::optional<std::string_view> ownerName = {};
    bool isOwnerInTrash = false;                  ///< the object was moved to a trash
    std::optional<Replacement> replacement = {};  ///< none: the name is free
};

enum class SaveVerdict : std::uint8_t {
    Wait,  ///< for the window to end
    Keep,  ///< the document ID stays with the object, or ends with it
    Move,  ///< the document ID goes to the replacement
};

/// Decides whom the document ID belongs to. A pure function.
[[nodiscard]] SaveVerdict decideAboutSave(const SaveFacts& facts,
                                          const VolumeService::Windows& windows);

}  // namespace platform

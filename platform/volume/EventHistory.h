#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/foundation/QSError.h"

namespace platform {

/// Flags of one event. The low bits are about the stream, the others about the object.
using FSEventFlags = std::uint32_t;
inline constexpr FSEventFlags fsEventMustScanSubDirs = 0x01;
inline constexpr FSEventFlags fsEventUserDropped = 0x02;
inline constexpr FSEventFlags fsEventKernelDropped = 0x04;
inline constexpr FSEventFlags fsEventIDsWrapped = 0x08;
inline constexpr FSEventFlags fsEventHistoryDone = 0x10;
inline constexpr FSEventFlags fsEventCreated = 0x100;
inline constexpr FSEventFlags fsEventRemoved = 0x200;
inline constexpr FSEventFlags fsEventMoved = 0x400;  ///< came to the path, or left it
inline constexpr FSEventFlags fsEventModified = 0x800;
inline constexpr FSEventFlags fsEventDocumentIDChanged = 0x1000;
inline constexpr FSEventFlags fsEventIsFolder = 0x2000;  ///< packages too

/// Which of an object's numbers its identifier is made of.
enum class IdentifierKind : std::uint8_t { File, Document };

/// Something happened to one object, or (with a stream flag) to the knowledge of what happened.
struct FSEvent {
    std::uint64_t id = 0;
    FSEventFlags flags = 0;
    /// Presented path of the object: below its folder as that is called now, or where the folder is
    /// removed, had then. "/.docid/$dev/changed/$docid/src=$src,dst=$dst" for a document ID
    /// that went over to another object.
    std::string path;
    std::uint64_t fileID = 0;  ///< 0 where the object never had one
    IdentifierKind identifierKind = IdentifierKind::File;
    std::uint32_t documentID = 0;  ///< that the object has, or had when it went; 0 = none
};

/// Which events are read.
enum class EventSelection : std::uint8_t {
    All,
    DocumentIDs,    ///< those of document IDs that went over to another object, and gaps
    DetachedRoots,  ///< that a root is not followed any more, behind the ends of all below it
};

/// What happened on the volume, by ID: what streams read from. Any thread.
class EventHistory {
  public:
    virtual ~EventHistory() = default;

    /// The ID of the last committed event.
    [[nodiscard]] virtual std::uint64_t currentEventID() const = 0;

    /// Whether what happened while nobody watched has been found and recorded; before that nothing
    /// may be replayed. False for good once the service closes.
    [[nodiscard]] virtual bool isCaughtUp() const = 0;

    /// Events with after < ID <= upTo, in the order of IDs, at most `limit` of them; fewer only
    /// where there are no more. A gap is an event with fsEventKernelDropped whose path is the
    /// folder below which something may have been missed. ESTALE where the history no longer goes
    /// back to `after`, or never came as far.
    [[nodiscard]] virtual Result<std::vector<FSEvent>> selectedEventsAfter(
        std::uint64_t after, std::uint64_t upTo, std::size_t limit,
        EventSelection selection) const = 0;
    [[nodiscard]] Result<std::vector<FSEvent>> eventsAfter(std::uint64_t after, std::uint64_t upTo,
                                                           std::size_t limit) const {
        return selectedEventsAfter(after, upTo, limit, EventSelection::All);
    }

    /// `age`: time since the step began that found these events.
    using Listener = std::function<void(std::chrono::nanoseconds age)>;
    /// Calls `listener` after each commit of events, after catching up, and when the service
    /// closes, until the returned handle is destroyed; on whichever thread did the work, so it must
    /// hand over and return. Destroying the handle waits for a call that runs.
    [[nodiscard]] virtual std::shared_ptr<void> subscribe(Listener listener) = 0;
};

}  // namespace platform

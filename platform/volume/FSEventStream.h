#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/dispatch/Queue.h"
#include "platform/dispatch/UseGate.h"
#include "platform/volume/EventHistory.h"

namespace platform {

/// The history has closed and nothing comes any more. A flag of streams, never of stored events.
inline constexpr FSEventFlags fsEventHistoryClosed = 0x80;

using FSEventStreamCreateFlags = std::uint32_t;
/// Paths come as objects, which extended data needs.
inline constexpr FSEventStreamCreateFlags fsEventStreamUsesPathObjects = 0x01;
/// One event for each object; without it one for each folder in which something happened.
inline constexpr FSEventStreamCreateFlags fsEventStreamFileEvents = 0x10;
/// Events carry file and document IDs.
inline constexpr FSEventStreamCreateFlags fsEventStreamUsesExtendedData = 0x40;

/// Where streams read from. The history outlives whoever is inside the gate; once the gate is
/// closed it may go, and calls its subscribers before it does.
struct FSEventSource {
    EventHistory* history = nullptr;
    std::shared_ptr<UseGate> gate;
};

/// A cursor into the history: it keeps a position and reads on, in chunks, when there are events.
///
/// Delivers what happened after `since`, in the order of IDs, once the history has caught up; then
/// one event with fsEventHistoryDone, all that without delay; then, at most once in the latency,
/// what happens. What is no longer (or not yet) in the history is one event with
/// fsEventKernelDropped, after which the stream stands at the present. A gap is delivered where its
/// folder lies below or above a watched path.
///
/// Created, configured, stopped and destroyed on any one thread at a time. The callback runs on the
/// stream's queue, inside the source's gate save for the last event, fsEventHistoryClosed.
class FSEventStream {
  public:
    /// While history is replayed also called with no events, since the position has moved.
    using Callback = std::function<void(std::span<const FSEvent> events)>;

    struct Options {
        std::uint64_t since = 0;
        std::chrono::nanoseconds latency{0};
        FSEventStreamCreateFlags flags = 0;
        /// Kept while the stream exists and released, on its queue, by invalidation.
        std::shared_ptr<void> info = {};
    };

    /// Watches what lies at and below presented paths; they need not exist.
    [[nodiscard]] static std::unique_ptr<FSEventStream> create(FSEventSource source,
                                                               std::vector<std::string> paths,
                                                               Options options, Callback callback);
    /// Watches paths relative to a device, such as ".docid". Null without a device.
    [[nodiscard]] static std::unique_ptr<FSEventStream> createRelativeToDevice(
        FSEventSource source, std::uint32_t device, const std::vector<std::string>& paths,
        Options options, Callback callback);
    /// Invalidates.
    ~FSEventStream();
    FSEventStream(const FSEventStream&) = delete;
    FSEventStream& operator=(const FSEventStream&) = delete;

    void setDispatchQueue(const SerialQueue& queue);

    /// Begins, or goes on from the position with a replay of its own. REQUIRES: a queue.
    void start();
    /// No further call of the callback begins after this one where it is called on the queue.
    void stop();
    /// Stops for good and releases callback and info.
    void invalidate();

    /// Everything up to here has been delivered. On the queue, or while stopped.
    [[nodiscard]] std::uint64_t latestEventID() const;

  private:
    struct State;
    explicit FSEventStream(std::shared_ptr<State> state) : state_(std::move(state)) {}
    std::shared_ptr<State> state_;
};

}  // namespace platform

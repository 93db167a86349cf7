#include "platform/volume/FSEventStream.h"

#include <algorithm>
#include <atomic>
#include <map>
#include <optional>
#include <string_view>

#include "platform/foundation/fatalError.h"
#include "platform/tree/PathRelation.h"

namespace platform {

namespace {

/// Events read at a time: what a stream holds at the most. Who replays may have enough soon; live
/// events are few or many batches.
constexpr std::size_t replayedAtOnce = 100;
constexpr std::size_t readAtOnce = 500;

constexpr FSEventFlags lossFlags = fsEventUserDropped | fsEventKernelDropped;
/// These mean everything below the path.
constexpr FSEventFlags subtreeFlags = lossFlags | fsEventMustScanSubDirs;

/// Nothing else is read where only events of document IDs can concern the stream.
EventSelection selectionFor(const std::vector<std::string>& paths) {
    const bool isDocumentIDs = std::ranges::all_of(
        paths, [](const std::string& path) { return isAtOrBelow(path, "/.docid"); });
    return isDocumentIDs ? EventSelection::DocumentIDs : EventSelection::All;
}

std::string parentOf(const std::string& path) {
    const auto slash = path.rfind('/');
    return slash == std::string::npos || slash == 0 ? "/" : path.substr(0, slash);
}

/// One event for each folder, with the ID of the last.
std::vector<FSEvent> byFolder(std::vector<FSEvent> events) {
    std::map<std::string, std::size_t> places;
    std::vector<FSEvent> folders;
    for (auto& event : events) {
        const auto kept = event.flags & subtreeFlags;
        if (kept == 0) event.path = parentOf(event.path);
        const auto [known, isNew] = places.emplace(event.path, folders.size());
        if (isNew) {
            folders.push_back({.id = event.id, .flags = kept, .path = std::move(event.path)});
        } else {
            folders[known->second].id = event.id;
            folders[known->second].flags |= kept;
        }
    }
    std::ranges::sort(folders, {}, &FSEvent::id);
    return folders;
}

}  // namespace

struct FSEventStream::State : std::enable_shared_from_this<State> {
    State(FSEventSource from, std::vector<std::string> watched, Options given, Callback handler)
        : source(std::move(from)),
          paths(std::move(watched)),
          selection(selectionFor(paths)),
          latency(given.latency),
          flags(given.flags),
          position(given.since),
          callback(std::move(handler)),
          info(std::move(given.info)) {}

    enum class Phase : std::uint8_t { Waiting, Replaying, Live };

    void start();
    void stop();
    void schedule(std::chrono::nanoseconds age);
    void proceed();
    void advance();
    void readChunk();
    void deliver(std::vector<FSEvent> events);
    [[nodiscard]] bool concerns(const FSEvent& event) const;
    [[nodiscard]] std::vector<FSEvent> filtered(std::vector<FSEvent> events) const;

    // Constant once started.
    const FSEventSource source;
    const std::vector<std::string> paths;
    const EventSelection selection;
    const std::chrono::nanoseconds latency;
    const FSEventStreamCreateFlags flags;
    std::optional<SerialQueue> queue;

    // By the owner's calls alone.
    std::shared_ptr<void> subscription;

    // On the queue.
    std::uint64_t position;
    std::uint64_t limit = 0;  ///< how far the history is read at present
    Callback callback;
    std::shared_ptr<void> info;

    std::atomic<Phase> phase = Phase::Waiting;  ///< written on the queue
    std::atomic<bool> isRunning = false;
    std::atomic<bool> isScheduled = false;  ///< a block that schedule() asked for has not begun
};

void FSEventStream::State::start() {
    if (!queue) fatalError("an event stream needs a queue");
    if (isRunning.exchange(true)) return;
    queue->async([self = shared_from_this()] { self->phase = Phase::Waiting; });
    if (const auto pass = source.gate->enter()) {
        subscription =
            source.history->subscribe([weak = weak_from_this()](std::chrono::nanoseconds age) {
                if (const auto self = weak.lock()) self->schedule(age);
            });
    }
    proceed();
}

void FSEventStream::State::stop() {
    isRunning = false;
    // Unsubscribing waits for a call that runs, so not here, where one may wait for the caller.
    if (subscription)
        queue->async([handle = std::move(subscription)]() mutable { handle.reset(); });
    subscription.reset();
}

/// The latency counts from when something happened, not from when it was on the disk.
void FSEventStream::State::schedule(std::chrono::nanoseconds age) {
    if (!isRunning || isScheduled.exchange(true)) return;
    auto work = [self = shared_from_this()] {
        self->isScheduled = false;
        self->advance();
    };
    if (phase == Phase::Live) {
        queue->asyncAfter(latency - age, std::move(work));
    } else {
        queue->async(std::move(work));
    }
}

void FSEventStream::State::proceed() {
    queue->async([self = shared_from_this()] { self->advance(); });
}

void FSEventStream::State::advance() {
    if (!isRunning) return;
    const auto pass = source.gate->enter();
    if (!pass) {
        isRunning = false;
        deliver({{.id = position, .flags = fsEventHistoryClosed, .path = "/"}});
        return;
    }
    if (phase == Phase::Waiting) {
        if (!source.history->isCaughtUp()) return;
        limit = source.history->currentEventID();
        phase = Phase::Replaying;
    } else if (phase == Phase::Live) {
        limit = source.history->currentEventID();
    }
    if (position != limit) readChunk();
    if (position != limit) {
        proceed();
    } else if (phase == Phase::Replaying) {
        phase = Phase::Live;
        deliver({{.id = limit, .flags = fsEventHistoryDone, .path = "/"}});
    }
}

void FSEventStream::State::readChunk() {
    const auto chunkSize = phase == Phase::Replaying ? replayedAtOnce : readAtOnce;
    auto chunk = position < limit
                     ? source.history->selectedEventsAfter(position, limit, chunkSize, selection)
                     : Result<std::vector<FSEvent>>(std::unexpected(errorFromErrno(ESTALE)));
    if (!chunk) {
        position = limit = source.history->currentEventID();
        deliver({{.id = position,
                  .flags = fsEventKernelDropped | fsEventMustScanSubDirs,
                  .path = "/"}});
        return;
    }
    position = chunk->size() < chunkSize ? limit : chunk->back().id;
    auto events = filtered(std::move(*chunk));
    if (!events.empty() || phase == Phase::Replaying) deliver(std::move(events));
}

void FSEventStream::State::deliver(std::vector<FSEvent> events) {
    if (callback) callback(events);
}

bool FSEventStream::State::concerns(const FSEvent& event) const {
    return std::ranges::any_of(paths, [&](const std::string& path) {
        return isAtOrBelow(event.path, path) ||
               ((event.flags & subtreeFlags) != 0 && isAtOrBelow(path, event.path));
    });
}

std::vector<FSEvent> FSEventStream::State::filtered(std::vector<FSEvent> events) const {
    std::erase_if(events, [&](const FSEvent& event) { return !concerns(event); });
    if ((flags & fsEventStreamFileEvents) == 0) return byFolder(std::move(events));
    constexpr auto extended = fsEventStreamUsesPathObjects | fsEventStreamUsesExtendedData;
    if ((flags & extended) != extended) {
        for (auto& event : events) {
            event = {.id = event.id, .flags = event.flags, .path = std::move(event.path)};
        }
    }
    return events;
}

std::unique_ptr<FSEventStream> FSEventStream::create(FSEventSource source,
                                                     std::vector<std::string> paths,
                                                     Options options, Callback callback) {
    return std::unique_ptr<FSEventStream>(new FSEventStream(std::make_shared<State>(
        std::move(source), std::move(paths), std::move(options), std::move(callback))));
}

std::unique_ptr<FSEventStream> FSEventStream::createRelativeToDevice(
    FSEventSource source, std::uint32_t device, const std::vector<std::string>& paths,
    Options options, Callback callback) {
    if (device == 0) return nullptr;
    std::vector<std::string> absolute;
    absolute.reserve(paths.size());
    for (const auto& path : paths) absolute.push_back(path.starts_with('/') ? path : "/" + path);
    return create(std::move(source), std::move(absolute), std::move(options), std::move(callback));
}

FSEventStream::~FSEventStream() {
    invalidate();
}

void FSEventStream::setDispatchQueue(const SerialQueue& queue) {
    state_->queue = queue;
}

void FSEventStream::start() {
    state_->start();
}

void FSEventStream::stop() {
    state_->stop();
}

void FSEventStream::invalidate() {
    state_->stop();
    const auto release = [state = state_] {
        state->callback = nullptr;
        state->info.reset();
    };
    if (state_->queue) {
        state_->queue->async(release);
    } else {
        release();
    }
}

std::uint64_t FSEventStream::latestEventID() const {
    return state_->position;
}

}  // namespace platform

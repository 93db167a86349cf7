#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "platform/dispatch/Queue.h"
#include "platform/fileprovider/Platform.h"
#include "tidewell/items/LocalItem.h"

namespace tidewell {

class FSEventReader;
class ItemFactory;

/// Receives a reader's reports, on the reader's queue.
class FSEventReaderDelegate {
  public:
    virtual ~FSEventReaderDelegate() = default;
    /// Something happened to the object that the URL keeps the identifier of (none if it never
    /// had one). `item` is what stands at the URL now, which may be another object; null: nothing
    /// does.
    virtual void itemChanged(FSEventReader& reader, const QSURL& url,
                             std::shared_ptr<LocalItem> item) = 0;
    /// Everything older than the reader's start has been delivered.
    virtual void historyDone(FSEventReader& reader) = 0;
    /// What was delivered is not all that happened.
    virtual void eventsLost(FSEventReader& reader) = 0;
};

/// May a listing go on after its page? In the order of their numbers.
enum class FSEventReaderGatherPhaseResumeStatus : std::uint8_t {
    deletionOccurred,
    canResume,
    cantReplayHistoricalFSEvents,
};

/// Turns the platform's event stream into reports on URLs and items: over folders by path, or over
/// the changes of document IDs on the whole volume. Any thread, but for what says otherwise.
class FSEventReader : public std::enable_shared_from_this<FSEventReader> {
  public:
    enum class Mode : std::uint8_t { pathBased, docIDBased };

    /// What the owner can do without, and wants beside reports.
    struct Hints {
        /// Whether an item is wanted for that place; otherwise null is reported. Unset: for all.
        std::function<bool(const QSURL& url)> needsItem = {};
        /// Called on the queue behind each batch, whether or not it reported anything; see
        /// position().
        std::function<void()> passed = {};
        /// Called on the queue where the objects of events could not be identified, which says
        /// nothing about whether they are there. Neither these events nor any later one is
        /// reported. Unset: they are dropped.
        std::function<void(const QSError& error)> failed = {};
    };

    /// Events count after `sinceFSEventID` and at or below `urls`.
    FSEventReader(std::vector<QSURL> urls, std::uint64_t sinceFSEventID, Mode mode, bool verbose);
    ~FSEventReader();

    /// REQUIRES: not started yet.
    void setHints(Hints hints) { hints_ = std::move(hints); }

    /// Not kept alive.
    void setDelegate(std::weak_ptr<FSEventReaderDelegate> delegate);

    /// From the last event processed on, later. A reader that was started lives until it is
    /// stopped.
    void start();
    /// Later; what remains of a batch under way is not reported.
    void stop();

    /// The highest event ID seen so far.
    [[nodiscard]] std::uint64_t lastProcessedFSEventID() const { return lastProcessedFSEventID_; }

    /// "tidewell.fsevents-stream".
    [[nodiscard]] const SerialQueue& streamQueue() const { return streamQueue_; }

    /// The event that a report is about. On the queue, within the report.
    [[nodiscard]] const FSEvent& currentEvent() const { return currentEvent_; }
    /// Up to here everything has been reported, as of the end of the last batch. On the queue.
    [[nodiscard]] std::uint64_t position() const;
    /// The loss just reported, if any, was that the history closed. On the queue, or once that was
    /// reported from there.
    [[nodiscard]] bool historyHasClosed() const { return historyHasClosed_; }

    /// Runs `work` on the queue behind the batch under way; not at all once stopped or closed. To
    /// be called within a report.
    void afterBatch(Work work);

    /// Whether nothing has happened in the folders since `previousEventID`, and the current event
    /// ID from before that was looked for. Waits for the history to catch up, without a limit. Not
    /// to be called on a reader's queue.
    [[nodiscard]] static std::pair<FSEventReaderGatherPhaseResumeStatus, std::uint64_t>
    canResumeGatherPhase(const std::vector<QSURL>& urls, std::uint64_t previousEventID);

    [[nodiscard]] std::string description() const;

  private:
    /// What an event is about, found for a whole batch before any of it is reported.
    struct Subject {
        std::optional<QSURL> url;      ///< none: the event is dropped, or not about an object
        std::uint64_t documentID = 0;  ///< that changed objects; 0 for other events
        enum class State : std::uint8_t { NotLookedAt, Missing, Present, Unreadable };
        State state = State::NotLookedAt;
    };

    void createStream();
    void receive(std::span<const FSEvent> events);
    [[nodiscard]] Result<std::vector<Subject>> subjectsOf(std::span<const FSEvent> events) const;
    [[nodiscard]] Result<Subject> subjectOf(const FSEvent& event) const;
    [[nodiscard]] bool isMonitored(const QSURL& url) const;
    Result<void> handle(const FSEvent& event, const Subject& subject, ItemFactory& factory);
    Result<void> handleObject(const Subject& subject, ItemFactory& factory);
    void fail(const QSError& error);
    void reportLoss(std::string_view reason);
    [[nodiscard]] std::shared_ptr<FSEventReaderDelegate> delegate() const;
    void logDropped(const std::string& what, std::string_view reason) const;

    // Constant once started.
    SerialQueue streamQueue_;
    std::vector<QSURL> urls_;
    Mode mode_;
    bool verbose_;
    std::shared_ptr<UseGate> gate_;
    Hints hints_;

    // On streamQueue_.
    std::unique_ptr<FSEventStream> stream_;
    FSEvent currentEvent_;

    std::atomic<std::uint64_t> lastProcessedFSEventID_;  ///< written on streamQueue_
    std::atomic<bool> isStopped_ = false;
    std::atomic<bool> historyHasClosed_ = false;

    mutable std::mutex mutex_;
    std::weak_ptr<FSEventReaderDelegate> delegate_;  // guarded by mutex_
};

}  // namespace tidewell

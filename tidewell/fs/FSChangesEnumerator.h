#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/dispatch/Queue.h"
#include "platform/fileprovider/QSFileProviderEnumerator.h"
#include "tidewell/fs/ContainerCover.h"
#include "tidewell/fs/FSChangeToken.h"
#include "tidewell/fs/FSEventReader.h"

namespace tidewell {

/// One change enumeration: replays what happened since a token, once, over two readers, and hands a
/// page of at most 100 changes to its observer.
///
/// What an event means is found by looking: an object that the container shows now is an update,
/// an identifier that it no longer shows a deletion. A change is delivered when both readers have
/// passed its event, so the token of a full page is simply the last event delivered.
class FSChangesEnumerator final : public FSEventReaderDelegate,
                                  public std::enable_shared_from_this<FSChangesEnumerator> {
  public:
    /// Changes in a page at the most.
    static constexpr std::uint64_t pageSize = 100;

    /// Keeps the observer until its last call; reports nothing after `upToEventID`. REQUIRES:
    /// `urls` is not empty.
    FSChangesEnumerator(const FSChangeToken& token, std::string container, std::vector<QSURL> urls,
                        std::shared_ptr<QSFileProviderChangeObserver> observer,
                        std::uint64_t upToEventID = std::numeric_limits<std::uint64_t>::max());

    /// Any thread, both; they do not wait. Where nothing has happened, starting ends it at once, on
    /// the caller's thread in the queue's name. Stopping ends the enumeration, with an expired
    /// anchor where the observer has had no last call.
    void start();
    void stop();

    /// "tidewell.changes-enumerator": the observer is called on it, and all of this is touched on
    /// it alone.
    [[nodiscard]] const SerialQueue& queue() const { return queue_; }
    [[nodiscard]] const std::string& container() const { return cover_.container(); }
    [[nodiscard]] std::uint64_t sinceFSEventID() const { return sinceFSEventID_; }
    /// How far the replay goes: the current event ID at creation or, where the history had still
    /// to catch up, that of the reader which began first.
    [[nodiscard]] std::uint64_t startupFSEventID() const { return startupFSEventID_; }
    /// Null once the observer has had its last call. On queue(), as the four below.
    [[nodiscard]] const std::shared_ptr<QSFileProviderChangeObserver>& observer() const {
        return observer_;
    }
    /// Changes handed to the observer, those before the token included.
    [[nodiscard]] std::uint64_t numberOfChanges() const { return numberOfChanges_; }
    void setNumberOfChanges(std::uint64_t number) { numberOfChanges_ = number; }
    /// Readers that have reported all of the history; two end the enumeration.
    [[nodiscard]] std::uint64_t numberOfReaderCaughtUp() const { return numberOfReaderCaughtUp_; }
    void setNumberOfReaderCaughtUp(std::uint64_t number) { numberOfReaderCaughtUp_ = number; }

    // Reports of the readers; they enter the queue and wait.
    void itemChanged(FSEventReader& reader, const QSURL& url,
                     std::shared_ptr<LocalItem> item) override;
    void historyDone(FSEventReader& reader) override;
    void eventsLost(FSEventReader& reader) override;

  private:
    /// One of the two readers and how far it has come.
    struct Feed {
        std::shared_ptr<FSEventReader> reader;
        std::uint64_t passed = 0;
        bool hasCaughtUp = false;
        bool hasEnough = false;  ///< a page is full of what it has passed; it is stopped
    };
    struct Bookmark {
        std::uint64_t eventID = 0;
        std::uint64_t offset = 0;
    };
    struct Change {
        std::string identifier;
        ItemRef item;  ///< null: a deletion
    };
    /// Event ID, and a count that keeps changes of one event apart.
    using Position = std::pair<std::uint64_t, std::uint64_t>;

    // All of these on queue_.
    void startFeed(Feed& feed);
    /// Null for a reader from before the enumeration began again.
    [[nodiscard]] Feed* feedOf(const FSEventReader& reader);
    [[nodiscard]] std::uint64_t endOfReplay() const;
    void makeReaders();
    void startReaders();
    [[nodiscard]] bool nothingHasHappened() const;
    [[nodiscard]] Result<bool> foldersHaveMoved();
    [[nodiscard]] bool requireInPlace();
    void beginAgain();
    [[nodiscard]] bool isFinished() const { return !observer_; }
    void collect(const FSEvent& event, const QSURL& url, const std::shared_ptr<LocalItem>& item);
    void miss(const QSURL& url);
    void collectPackage(std::uint64_t eventID, const QSURL& url);
    void collectElsewhere(const FSEvent& event, const QSURL& url, const std::string& identifier);
    void scan(std::uint64_t eventID, const QSURL& folder);
    void add(std::uint64_t eventID, std::string identifier, ItemRef item);
    void ignore(const QSURL& url, Cover cover) const;

    void feedPassed(Feed& feed, std::uint64_t eventID);
    void deliverWhatIsReady();
    [[nodiscard]] std::uint64_t countUpTo(std::uint64_t eventID) const;
    [[nodiscard]] bool pageIsFull() const;
    void finishPage();
    void finishCaughtUp();
    void forward(std::vector<Change> changes);
    void finish(const std::function<void(QSFileProviderChangeObserver&)>& lastCall);
    void finishWithError(const QSError& error);
    void finishExpired();
    void stopReaders();

    // Constant after construction.
    SerialQueue queue_;
    ContainerCover cover_;
    std::uint64_t sinceFSEventID_;
    std::uint64_t upToEventID_;

    // On queue_.
    FSChangeToken currentToken_;
    std::uint64_t numberOfChanges_;
    std::uint64_t numberOfReaderCaughtUp_ = 0;
    std::uint64_t startupFSEventID_;
    /// What was moved up to here was known when places were first looked at.
    std::uint64_t lookedSinceFSEventID_ = 0;
    std::set<std::string> missedFolders_;  // of what was not where its event or the index says
    int beginnings_ = 1;
    Feed docIDBased_;
    Feed pathBased_;
    std::optional<Bookmark> pathBasedReaderState_;
    std::shared_ptr<QSFileProviderChangeObserver> observer_;  ///< null once it had its last call
    /// What was found and not delivered yet: each identifier once, at its first event, with the
    /// state that was seen last.
    std::map<Position, Change> changes_;
    std::unordered_map<std::string, Position> positions_;
    std::uint64_t nextChange_ = 0;
    std::set<std::string> packages_;  ///< paths of those looked at already
};

}  // namespace tidewell

#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <shared_mutex>
#include <span>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/volume/ElapsedClock.h"
#include "platform/volume/IdentityStore.h"
#include "platform/volume/ObjectIndex.h"
#include "platform/volume/TrashLedger.h"
#include "platform/volume/VolumeService.h"

namespace platform {

class Follower;

/// What the service's parts share. Lock order: the follower's mutex, storeMutex, indexMutex.
/// Look-ups need the last alone, and nobody asks the disk for anything under it.
struct VolumeService::State {
    explicit State(Configuration given);
    ~State();

    struct Root {
        ObjectIndex::NodeNumber node;
        QSURL url;
    };
    /// REQUIRES: there is no root under that URL.
    void addRoot(const ObjectIdentity& identity, const QSURL& url);
    /// The root of that URL, also one of the last run that was not added yet; none if there is
    /// none. REQUIRES: indexMutex is held.
    [[nodiscard]] ObjectIndex::NodeNumber rootAt(const QSURL& url) const;

    /// Where the index locates an object, checked on the disk.
    struct Located {
        std::optional<QSURL> url;
        std::vector<std::string> missedIn;  ///< paths of folders that should hold it and do not
        bool isMissing = false;             ///< it has no place now, and may get one
    };
    /// Fails where the disk cannot be asked.
    [[nodiscard]] Result<Located> locate(std::uint64_t fileID) const;
    /// Where the index has the node, unchecked. REQUIRES: indexMutex is held.
    [[nodiscard]] std::optional<QSURL> urlOf(ObjectIndex::NodeNumber number) const;
    /// All its places, the same way.
    [[nodiscard]] std::vector<QSURL> urlsOf(ObjectIndex::NodeNumber number) const;
    /// The event's object where it, or a folder above it, is missing and may come back or have a
    /// replacement; else none.
    [[nodiscard]] ObjectIndex::NodeNumber missingObjectOf(const FSEvent& event) const;
    /// Whether the object, or a folder above it, has no place now and may get one. REQUIRES: the
    /// caller holds indexMutex.
    [[nodiscard]] bool isMissing(ObjectIndex::NodeNumber number) const;
    /// Where the object of the request was seen; none if that is not known.
    [[nodiscard]] std::optional<QSURL> placeOf(const IdentityRequest& request) const;
    /// Whether the object of the request is still where it was seen, or where the index has what
    /// has its number. True if that is not known.
    [[nodiscard]] bool isThere(const IdentityRequest& request) const;
    /// Answers from the index alone; false where a request has to be allocated first.
    [[nodiscard]] bool answerFromIndex(std::span<IdentityRequest> requests) const;
    /// Whether one of these objects has a number that a commit has still to write.
    [[nodiscard]] bool hasUnstored(std::span<const IdentityRequest> requests) const;
    /// Whether what the index does not know yet, or what is not decided yet, may bear on which
    /// document IDs these objects have.
    [[nodiscard]] bool needsDecision(std::span<const IdentityRequest> requests) const;
    /// Answers any requests: allocates what is missing in one durable transaction, and lets readers
    /// see it after the commit.
    Result<void> allocate(std::span<IdentityRequest> requests);
    struct StagedRow {
        ObjectRow row;
        bool isChanged = false;  ///< other than in the store
        const IdentityRequest* request = nullptr;
    };
    Result<Identity> assignIdentity(const IdentityRequest& request, StagedRow& staged);
    void publish(const std::unordered_map<std::uint64_t, StagedRow>& staged);

    /// Remembers what user metadata documents had when they got their IDs.
    void captureMetadata(std::span<const IdentityRequest> requests);
    void noteReplaced(const ObjectRow& former, const IdentityRequest& request,
                      std::vector<EventRecord>& events) const;

    /// The file ID for an object whose inode number was never handed out. REQUIRES: storeMutex.
    [[nodiscard]] Result<std::uint64_t> newFileID(std::uint64_t inode);
    /// One transaction, which also writes the events of those before it that failed. Events that
    /// cannot be written wait for the next one; too many become a gap. Where it fails after all was
    /// stored, since the witness could not be written, the same rows may be written again.
    /// REQUIRES: storeMutex is held.
    Result<void> write(std::span<const ObjectRow> rows, bool isDurable,
                       std::vector<EventRecord>& events,
                       std::span<const UnownedChange> unowned = {});
    /// Stores what the ledger of the trash has changed; after a failure the next call does.
    /// REQUIRES: storeMutex is held.
    void storeTrash();
    /// Makes what is stored visible; see IdentityStore. REQUIRES: storeMutex is held.
    Result<void> confirm();
    /// Writes the witness in the storage folder where that is due. REQUIRES: the caller holds the
    /// follower's mutex, or the follower has stopped; the caller holds no other one.
    void writeFolderWitness();
    /// Dates the events that have no date yet, and says which ones are too old to be kept.
    /// REQUIRES: storeMutex is held.
    void datesOf(std::vector<EventRecord>& events);
    void putBackDirty(std::span<const ObjectIndex::NodeNumber> nodes);
    /// The event with its path as its folder is called now.
    [[nodiscard]] FSEvent present(EventRecord record) const;

    /// An object that was given an identifier though the index does not have it there.
    struct Recheck {
        std::uint64_t folder = 0;  ///< inode
        std::string name;
        ObjectIdentity object;
        ObjectKind kind = ObjectKind::Other;
        Identity identity;  ///< that it was given
    };
    void requestRechecks(std::span<const IdentityRequest> requests);
    [[nodiscard]] std::vector<Recheck> popRechecks();

    /// Whether this process itself is removing or moving the object, or has and the index does not
    /// know yet.
    [[nodiscard]] bool isRemoving(const ObjectIndex::Node& object);
    [[nodiscard]] std::vector<ObjectIdentity> removedObjects();
    /// Those whose moves have ended, which whoever looks now will see.
    [[nodiscard]] std::vector<ObjectIdentity> movedObjects();
    /// The index knows of them now.
    void forgetRemovals(std::span<const ObjectIdentity> objects);

    void setStorageTrouble(const std::optional<QSError>& now);
    /// Calls the listeners of subscribers if there are new events. REQUIRES: no mutex is held.
    void announce();

    // Constant after opening.
    const Configuration configuration;
    std::atomic<std::uint32_t> device = 0;  ///< another one after a mount
    QSUUID history;
    bool freshOnly = false;
    std::string trouble;
    std::unique_ptr<ElapsedClock> clock;  // has its own synchronisation
    TrashLedger trash;                    // the same

    std::mutex storeMutex;
    std::unique_ptr<IdentityStore> store;  // guarded by storeMutex, save lastEvent() and path()

    mutable std::shared_mutex indexMutex;
    ObjectIndex index;        // guarded by indexMutex
    std::vector<Root> roots;  // guarded by indexMutex

    std::vector<EventRecord> unwritten;     // guarded by storeMutex; of commits that failed
    std::string lastGap;                    // guarded by storeMutex
    std::optional<QSError> storageTrouble;  // guarded by indexMutex

    struct Subscriber {
        std::mutex mutex;
        EventHistory::Listener listener;  // guarded by mutex; empty once it has unsubscribed
    };
    std::mutex rechecksMutex;
    std::vector<Recheck> rechecks;  // guarded by rechecksMutex

    std::mutex removalsMutex;  // the last of all
    /// Inode and generation. Guarded by removalsMutex, as the next one.
    std::multiset<std::pair<std::uint64_t, std::uint64_t>> removing;
    std::vector<ObjectIdentity> removed;  ///< still among `removing`
    std::vector<ObjectIdentity> moved;    ///< in the same way

    std::mutex subscribersMutex;
    std::vector<std::weak_ptr<Subscriber>> subscribers;  // guarded by subscribersMutex

    std::atomic<bool> identityIsWeak = false;
    std::atomic<bool> hasEvents = false;
    std::atomic<bool> folderWitnessIsDue = false;
    std::atomic<std::chrono::steady_clock::time_point> lookingSince{};  ///< the latest step
    std::unique_ptr<Follower> follower;                                 // the first to go
};

/// The event that says that something may have been missed below the path.
[[nodiscard]] EventRecord gapRecord(std::string path);

}  // namespace platform

#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/files/FileSystem.h"
#include "platform/foundation/QSError.h"
#include "platform/foundation/QSURL.h"
#include "platform/foundation/QSUUID.h"
#include "platform/volume/ElapsedClock.h"
#include "platform/volume/EventHistory.h"
#include "platform/volume/KernelEvents.h"
#include "platform/volume/TrashLedger.h"

namespace platform {

/// Identities, look-ups and the event history of the volume that holds the storage. One process
/// owns its store. Any thread; calls that need the store block for it, and nothing here waits on
/// another process.
class VolumeService final : public EventHistory {
  public:
    /// How long things may take before they are taken as they are; see docs/safe-saves.md.
    struct Windows {
        std::chrono::milliseconds rest{50};  ///< for the other half of a move to be seen
        std::chrono::milliseconds replacement{
            1000};  ///< for an object that stands at a vacated name
        std::chrono::milliseconds rename{
            5000};  ///< to distinguish a renamed document from a backup
    };

    struct Configuration {
        const FileSystem& files;
        std::string dataFolder;   ///< native; the store, made with mode 0700 where missing
        std::string stateFolder;  ///< native; the witness of its high-water marks
        /// Called by a scan of everything now and then with the entries seen so far, from the
        /// thread that scans; must not call the service.
        std::function<void(std::uint64_t entries)> progress = {};
        bool followsAtStart = true;
        /// Whether a folder of that name is a package.
        std::function<bool(std::string_view name)> isPackageName = [](auto) { return false; };
        /// Extended attributes that follow a document to the object that a save puts in its place.
        std::vector<std::string> metadataNames = {};
        /// Between two comparisons of everything, and of what the kernel does not report on.
        std::chrono::milliseconds reconcileInterval = std::chrono::minutes(10);
        std::chrono::milliseconds degradedInterval = std::chrono::seconds(60);
        Windows windows = {};
        std::uint64_t eventsKept = 1'000'000;
        std::chrono::seconds eventAge = std::chrono::days(60);
        ElapsedClock::Sources clocks = {};  ///< by which age is counted
        /// The kernel's own events where empty, and the clock.
        std::function<Result<std::unique_ptr<KernelEventSource>>()> makeSource = {};
        std::function<std::chrono::steady_clock::time_point()> now = std::chrono::steady_clock::now;
        /// Nothing happens but in step() and in calls that need it done.
        bool isManual = false;
    };

    /// Takes the store (code EBUSY and "in use by PID …" at once where another process has it), and
    /// sets a damaged one aside and rebuilds it.
    [[nodiscard]] static Result<std::unique_ptr<VolumeService>> open(Configuration configuration);
    /// Ends every wait (with ECANCELED), then closes the store.
    ~VolumeService() override;

    /// Also follows what is below `root` (an application's library; the storage itself need not be
    /// added). While following, everything below it has been recorded as created when this returns,
    /// and a change of the storage folder as well; it blocks for the disk that long. EXDEV where it
    /// is on another device, ENOTDIR where it is no folder. Again is fine; another folder under the
    /// same URL replaces the first.
    Result<void> addRoot(const QSURL& root);
    /// Lets a root go: everything below it that has an identifier is recorded as removed, and a
    /// change of the storage folder. Nothing on disk is touched, and what comes back, here or
    /// elsewhere, has the identifiers that it had. One of the last run need not be added for that.
    /// One that is no root, or the storage, is kept as it is.
    Result<void> removeRoot(const QSURL& root);
    /// Those of the last run that were neither added again nor removed.
    [[nodiscard]] std::vector<QSURL> formerRoots() const;

    /// The UUID of the event history: another one after a store was rebuilt or rolled back, or the
    /// file system was replaced. Null for a device that is not this volume's.
    [[nodiscard]] std::optional<QSUUID> UUIDForDevice(std::uint32_t device) const;
    [[nodiscard]] std::uint64_t currentEventID() const override;

    /// Begins to watch the roots and to compare them with what was known, in the background; again
    /// is fine. Subscribing and both barriers do so too.
    void follow();
    [[nodiscard]] bool isCaughtUp() const override;
    [[nodiscard]] Result<std::vector<FSEvent>> selectedEventsAfter(
        std::uint64_t after, std::uint64_t upTo, std::size_t limit,
        EventSelection selection) const override;
    [[nodiscard]] std::shared_ptr<void> subscribe(Listener listener) override;

    /// Blocks until everything that happened before the call has been read and committed; a removed
    /// document may still be waiting for a replacement. Does not wait for a comparison that is made
    /// now and then, unless that found a name missing. ECANCELED where the service closes, else the
    /// reason for which the storage cannot be read.
    Result<void> waitUntilSeen();
    /// The same, and whether these folders (presented paths) are where the index has them, and what
    /// happened in those that the kernel does not report.
    Result<void> waitUntilSeenLooking(std::span<const std::string> folders);
    /// As waitUntilSeen(), and until no such wait is left.
    Result<void> waitUntilSettled();

    /// Where the index has the object with that identifier, all its names; nothing is checked on
    /// the disk. Empty if it is not known or was removed.
    [[nodiscard]] std::vector<QSURL> placesOfFileID(std::uint64_t fileID) const;
    [[nodiscard]] std::vector<QSURL> placesOfDocumentID(std::uint32_t documentID) const;
    /// The file ID that the folder was given; none if it was given none, or is a root or
    /// package.
    [[nodiscard]] std::optional<std::uint64_t> fileIDOfFolder(const ObjectIdentity& identity) const;
    /// One URL of the object with that inode number, from the index, unchecked in the same way.
    [[nodiscard]] std::optional<QSURL> placeOfInode(std::uint64_t inode) const;
    /// All places below the roots of the object that is at `url` now, `url` among them, each
    /// checked on the disk. Where the object has several links, waits first as waitUntilSeen()
    /// does. ENOENT where nothing is there.
    [[nodiscard]] Result<std::vector<QSURL>> placesOfObjectAt(const QSURL& url);
    /// Whether the removal of the event's object, or of a folder above it, is pending. An event
    /// will report what becomes of it.
    [[nodiscard]] bool isMissing(const FSEvent& event) const;
    /// Where an object that is missing like that was last, which is where its removal will be
    /// reported; none if it is not missing.
    [[nodiscard]] std::optional<QSURL> lastPlaceOf(const FSEvent& event) const;
    /// Decides now whether the event's document has a replacement.
    void decideAbout(const FSEvent& event);

    struct Identity {
        std::uint64_t fileID = 0;      ///< durable; never another object's
        std::uint32_t documentID = 0;  ///< 0 where none was asked for
    };
    struct IdentityRequest {
        const FileAttributes* object = nullptr;
        std::string_view name;  ///< of the entry in the folder object->parent.inode; may be empty
        bool wantsDocumentID = false;
        Identity result;  ///< written by identify
    };

    /// Answers every request, allocating what is missing in one durable transaction, and remembers
    /// where each object was seen. All or nothing.
    Result<void> identify(std::span<IdentityRequest> requests);

    /// Why the store cannot be written to; empty where it can. If a write has failed, one more is
    /// tried. As long as none succeeds, an object that is not found may be one that was never
    /// recorded.
    [[nodiscard]] std::optional<QSError> writeTrouble();
    /// Notes, for processes that find the store in use, which one serves them, and at which socket.
    /// A failure to write it leaves them without.
    void noteService(pid_t process, std::string_view socket) const;

    /// The file ID of the object with that document ID; ENOENT where it is not known.
    [[nodiscard]] Result<std::uint64_t> fileIDForDocumentID(std::uint32_t documentID) const;

    /// The URL of the object with that file ID, verified on the disk just now: of several names,
    /// the one that the thread prefers (see PreferredPlace). One that fails its check is looked for
    /// again once all that happened has been seen. ENOENT where it does not exist, EBUSY where it
    /// moves all the time, ECANCELED when the service closes.
    [[nodiscard]] Result<QSURL> URLForFileID(std::uint64_t fileID);

    /// Brackets the removal of an object by this process itself, which is no half of a save:
    /// no replacement is looked for at its name. `isRemoved`: it has no name left. Every call that
    /// begins is ended.
    void removalBegins(const ObjectIdentity& object);
    void removalEnds(const ObjectIdentity& object, bool isRemoved);
    /// The same for a move after which the object, and nobody else, has its identifier.
    void moveBegins(const ObjectIdentity& object) { removalBegins(object); }
    void moveEnds(const ObjectIdentity& object, bool isDone);

    /// The records of what lies in the trash.
    [[nodiscard]] TrashLedger& trash();
    /// Records that the object is about to be moved into the trash (a presented path), before that
    /// begins. Never fails: where the store cannot be written to, the record is in memory only.
    /// Blocks for the store.
    [[nodiscard]] std::unique_ptr<TrashLedger::Intent> trashingBegins(const std::string& trash,
                                                                      const ObjectIdentity& object,
                                                                      TrashRecord record);

    /// Entries of a folder (hidden ones too), without reading it where the index's count is of this
    /// very state of the folder; none if it has to be read.
    [[nodiscard]] std::optional<std::uint64_t> entryCount(const FileAttributes& folder) const;

    /// By which what is removed for its age is dated.
    [[nodiscard]] ElapsedClock& clock();

    /// One round of the work, for isManual; true where there is more to do at once.
    bool step();

    struct Statistics {
        std::uint64_t objects = 0;     ///< in the index
        std::uint64_t indexBytes = 0;  ///< memory held for them
        bool identityIsWeak = false;   ///< some object had neither handle nor generation
        std::string storePath;
        std::optional<std::string> lastTrouble;  ///< why the store was rebuilt or the history reset
        std::vector<std::string> roots;          ///< native paths
        bool isFollowing = false;                ///< the roots are watched
        bool isCaughtUp = false;
        std::uint64_t watches = 0;                 ///< folders that the kernel reports about
        std::uint64_t watchLimit = 0;              ///< of this user; 0 = not known
        std::vector<std::string> degradedFolders;  ///< native; not watched, some of them
        std::uint64_t degradedFolderCount = 0;     ///< all of them
        std::uint64_t oldestEventID = 0;           ///< anchors before this one have expired
        std::uint64_t currentEventID = 0;
        std::uint64_t eventCount = 0;               ///< kept in the history
        std::optional<std::string> lastGap;         ///< why events were lost last
        std::optional<std::string> storageTrouble;  ///< why the storage cannot be read now
        std::optional<std::string> writeTrouble;    ///< why the store cannot be written to now
    };
    [[nodiscard]] Statistics statistics() const;

    struct State;  ///< for the service's own parts

  private:
    explicit VolumeService(std::unique_ptr<State> state);
    std::unique_ptr<State> state_;
};

}  // namespace platform

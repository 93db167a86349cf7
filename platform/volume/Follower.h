#pragma once

#include <atomic>
#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "platform/files/FileDescriptor.h"
#include "platform/volume/Beginning.h"
#include "platform/volume/KernelEvents.h"
#include "platform/volume/Reconciler.h"

namespace platform {

/// Follows what happens below the roots: turns the kernel's hints into marks, looks at what is
/// marked, and compares everything with the index at start, after losses, and now and then.
///
/// All work is done in step(), by whoever needs it done: a thread of its own while nobody does, and
/// the caller of a barrier. Any thread; one step at a time.
class Follower {
  public:
    using NodeNumber = ObjectIndex::NodeNumber;

    explicit Follower(VolumeService::State& state);
    /// Ends the thread and every wait (with ECANCELED).
    ~Follower();
    void stop();

    /// Reads from the store what the last run left undecided. Before all other calls, once the
    /// storage is a root.
    void resumeDecisions();
    /// Watches and compares from now on; again is fine.
    void follow();
    [[nodiscard]] bool isFollowing() const { return isFollowing_; }
    [[nodiscard]] bool isCaughtUp() const { return isCaughtUp_ && !isStopped_; }
    /// Whether the kernel reports on every folder, and everything before has been found.
    [[nodiscard]] bool seesEverything() const { return isCaughtUp() && !hasUnwatched_; }
    /// See VolumeService. The caller does the work, in steps.
    Result<void> addRoot(const ObjectIdentity& identity, const QSURL& url);
    Result<void> removeRoot(const QSURL& url);

    /// Work has arrived that the kernel does not report.
    void wake();

    /// One round; true where there is more to do at once.
    bool step();

    /// The two strengths of barrier; see VolumeService. Works on the calling thread.
    enum class Barrier : std::uint8_t { Seen, Settled };
    Result<void> wait(Barrier barrier);
    /// Seen, for what the kernel has not reported there either.
    Result<void> waitLooking(std::span<const std::string> folders);

    /// Decides now what bears on the identifiers of these objects. Fails where that cannot be
    /// looked at or written; then no identifier may be given out.
    Result<void> decideFor(std::span<const VolumeService::IdentityRequest> requests);
    /// Whether it is only the store that failed, and no decision can change the identifiers that
    /// these objects have: each has moved, nothing is at its former places, and no document was at
    /// the place where it was seen.
    [[nodiscard]] bool haveOnlyMoved(
        std::span<const VolumeService::IdentityRequest> requests) const;

    /// Writes now what a commit that failed has left.
    Result<void> commit();
    /// Writes the witness in the storage folder where that is due.
    void writeFolderWitness();

    /// Where an object that is missing was last; none if no decision about it is pending.
    [[nodiscard]] std::optional<QSURL> lastPlaceOf(NodeNumber object) const;
    /// Decides now whether the document has a replacement.
    void decideAbout(std::uint32_t documentID);

    struct Health {
        std::uint64_t watches = 0;
        std::vector<std::string> degradedFolders;
        std::uint64_t degradedFolderCount = 0;
        std::optional<std::string> storageTrouble;
        std::optional<std::string> storeTrouble;
    };
    [[nodiscard]] Health health() const;
    [[nodiscard]] std::optional<QSError> storeTrouble() const;

  private:
    using Time = Reconciler::Time;

    struct Mark {
        bool isWhole = false;
        std::map<std::string, bool, std::less<>> names;  ///< and whether it was written to
    };

    /// What came of looking at a folder.
    struct Look {
        NodeNumber folder = ObjectIndex::none;
        Mark mark;
        std::optional<QSURL> url;
        bool hasChildren = false;  ///< that the index knows
        Result<FolderReading> reading;
    };

    static constexpr std::size_t sightingsAtOnce = 8192;  // applied in one transaction
    static constexpr std::size_t foldersAtOnce = 512;

    void run();
    void waitForWork();
    /// When there is something to do though nothing happens. REQUIRES: mutex_ is held.
    [[nodiscard]] Time nextTime() const;
    /// Does the work of a routine comparison, and says that there is more of it, only for one who
    /// waits for that.
    [[nodiscard]] bool stepLocked(bool waitsForRoutine);
    [[nodiscard]] bool checkStorage();
    void drain();
    void popRechecks();
    /// What this process has removed; true where there was anything.
    bool readRemovals();
    void commitRemovals();
    void readKernelEvents();
    void receive(const KernelEvent& event);
    void markName(NodeNumber folder, std::string_view name);
    void markGap(std::string why);
    [[nodiscard]] bool hasMarks() const;
    void lookAtMarks();
    void lookAtUnwatched();
    void markPath(std::string_view folder);
    void scanSome();
    /// Compares the last of the folders and puts what they hold in their place.
    Result<void> scanSomeOf(std::deque<NodeNumber>& toScan, Reconciler::Occasion occasion);
    Result<void> detach(const QSURL& url);
    Result<void> commitRoots();
    void endScan();
    [[nodiscard]] Look look(NodeNumber folder, Mark mark);
    [[nodiscard]] Result<FolderReading> readFolder(NodeNumber number, const QSURL& url,
                                                   const Mark& mark);
    /// Whether the folder's state, read just now, may show changes whose names were not marked
    /// when the look at it began.
    [[nodiscard]] bool isPart(NodeNumber folder);
    /// Looks at the last of the folders, on two threads where there are many.
    [[nodiscard]] std::deque<Look> lookAtSome(std::deque<NodeNumber>& toScan);
    /// Adds what was read, or keeps in mind what could not be.
    void apply(Look look, std::vector<FolderReading>& readings);
    /// To be looked at again later; false where that was so before.
    bool noteUnreadable(const Look& look, const QSError& error);
    Result<void> reconcile(std::vector<FolderReading> readings, Reconciler::Occasion occasion);
    void setCompared(NodeNumber folder, bool isCompared);
    [[nodiscard]] bool isCompared(NodeNumber folder) const {
        return folder < compared_.size() && compared_[folder];
    }
    void markMissed(NodeNumber folder);
    void noteCommit(const Result<void>& done);
    void afterCommit();
    void decide();
    /// Whether it was not watched until now, and is.
    bool watch(NodeNumber number, const Folder& folder);
    void unwatch(NodeNumber number);
    void scanEverything(bool isRoutine);
    void beginFirstScan();
    [[nodiscard]] bool isNeverScanned() const;
    [[nodiscard]] Time now() const { return state_.configuration.now(); }

    VolumeService::State& state_;

    mutable std::mutex mutex_;  // one step at a time; before the state's mutexes
    /// While two threads read: guards what they change, which is marks_, what is about watches, and
    /// the folders still to be compared.
    std::mutex readersMutex_;
    // Guarded by mutex_.
    Reconciler reconciler_;
    FolderReader reader_;
    std::unique_ptr<KernelEventSource> source_;
    std::unordered_map<int, NodeNumber> folders_;  ///< by watch
    std::unordered_map<NodeNumber, int> watches_;
    std::set<NodeNumber> unwatched_;   ///< the kernel took no watch for these
    std::set<NodeNumber> unreadable_;  ///< some or all of what they hold could not be looked at
    std::map<NodeNumber, Mark> marks_;
    std::map<NodeNumber, Mark> detached_;  ///< marks of folders that were not where they should be
    std::deque<NodeNumber> scan_;          ///< still to be compared, the next one last
    std::vector<bool> compared_;           ///< by number: whole, since the last comparison began
    bool isScanning_ = false;
    /// Nothing is known that the comparison has to find: it is one of those made now and then, and
    /// found no name missing so far. Then only Barrier::Settled waits for it.
    bool isRoutine_ = false;
    Reconciler::Occasion scanOccasion_ = Reconciler::Occasion::Scan;
    Beginning
        beginning_;  ///< of a first scan: objects that have not changed since are not reported
    std::uint64_t scanned_ = 0;
    std::uint64_t reported_ = 0;
    Time nextScan_{};
    Time nextDegradedScan_{};
    Time nextUnreadableLook_{};
    Time nextDecision_{};
    Time nextTry_{};  ///< after a commit that failed
    Time passStart_{};
    std::vector<ObjectIdentity> moved_;    ///< by this process; not looked at yet
    bool isMoved_ = false;                 ///< a detached folder may have been found since
    std::optional<QSError> storeTrouble_;  ///< of the last commit
    std::optional<QSError> storageTrouble_;

    std::atomic<bool> isFollowing_ = false;
    std::atomic<bool> hasUnwatched_ = false;  ///< whether there are such folders
    std::atomic<bool> isCaughtUp_ = false;
    std::atomic<bool> isStopped_ = false;
    std::atomic<int> waiting_ = 0;
    FileDescriptor wake_;
    std::thread thread_;
};

}  // namespace platform

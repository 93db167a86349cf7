#pragma once

#include <cstdint>
#include <deque>
#include <span>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/volume/EventTable.h"
#include "platform/volume/FolderReader.h"
#include "platform/volume/PendingRemovals.h"
#include "platform/volume/SaveVerdict.h"
#include "platform/volume/UnownedDocuments.h"
#include "platform/volume/VolumeState.h"

namespace platform {

/// Brings the index in line with what a FolderReader saw, and records what that means: one event an
/// object and place. Index and events reach the store in one transaction.
///
/// REQUIRES for every call but the const ones: the follower's mutex and the state's storeMutex are
/// held, the latter from the first apply to the commit. Takes indexMutex itself.
class Reconciler {
  public:
    using NodeNumber = ObjectIndex::NodeNumber;
    using Time = PendingRemovals::Time;

    explicit Reconciler(VolumeService::State& state) : state_(state) {}

    enum class Occasion : std::uint8_t {
        FirstScan,  ///< nothing is known yet: what is older than any anchor is no event
        Scan,       ///< compared after nobody watched for a while
        Live,
    };
    /// `silentBefore`: seconds since 1970, for FirstScan.
    void apply(const FolderReading& reading, Occasion occasion, Time now,
               std::int64_t silentBefore);

    /// Works out the events of what was applied and writes all. What fails is written with the next
    /// commit that succeeds.
    Result<void> commit();

    /// An object that got an identifier should be there; if it is not, it was removed or moved
    /// unseen. Returns the folder to look at, none if that is not known.
    NodeNumber expect(const VolumeService::State::Recheck& recheck, Time now);

    /// This process has removed the object, all its names: records its removal, without a
    /// replacement.
    void removed(const ObjectIdentity& identity, Time now);

    /// Takes up what waited for a decision when the last run ended. Before all else.
    void restoreUndecided(Time now);

    /// Attaches a root, which is read next. The storage folder has changed if the root is new.
    /// REQUIRES: there is no root under that URL.
    NodeNumber attach(const ObjectIdentity& identity, const QSURL& url);
    /// Records all below the root as removed, and the storage folder as changed. False where there
    /// is none.
    bool detach(const QSURL& url);

    /// Records a change of all missing objects, which may be back when the next run begins: who
    /// listed before that has not seen them. False where there is nothing.
    bool recordMissing();

    /// Records that something may have been missed below the path.
    void recordGap(std::string path, std::string why);
    /// The same of a folder that cannot be read, once for each state (stamp) of it, also in later
    /// runs; until it could be read.
    void recordUnreadable(NodeNumber folder, std::uint64_t stamp, std::string path,
                          std::string why);

    /// Whether a name was missing in what was applied since the last call.
    [[nodiscard]] bool popLeft() { return std::exchange(hasLeft_, false); }
    /// Folders that came into sight or changed since the last call, to be looked at whole.
    [[nodiscard]] std::vector<NodeNumber> popNewFolders() { return std::exchange(newFolders_, {}); }
    /// Names, each with its folder, to be looked at once more.
    [[nodiscard]] std::vector<std::pair<NodeNumber, std::string>> popUnsureNames() {
        return std::exchange(unsureNames_, {});
    }
    /// Removed folders; watches of them are of no use.
    [[nodiscard]] std::vector<NodeNumber> popRemovedFolders() {
        return std::exchange(removedFolders_, {});
    }

    /// Decides what can be decided now. What happened before `passStart` has been looked at.
    void decideDue(Time now, Time passStart);
    /// A scan has seen every folder: what lies in others has left them. To be committed before
    /// what waits for the scan's end is decided.
    void leaveLostFolders(Time now);
    /// The scan at the start has ended: what it did not find was removed.
    void decideAfterScan(Time now);
    /// Decides at once what concerns these objects, since an identifier of one is asked for.
    void decideFor(std::span<const VolumeService::IdentityRequest> requests, Time now);
    void decideAbout(std::uint32_t document, Time now);
    /// Whether the object of the request is known, nothing is at its former places on the disk, and
    /// no document was where it was seen: then no decision gives it other numbers.
    [[nodiscard]] bool hasOnlyMoved(const VolumeService::IdentityRequest& request) const;
    /// Where an object that is missing was last; none if no decision about it, or about a folder
    /// above it, is pending.
    [[nodiscard]] std::optional<QSURL> lastPlaceOf(NodeNumber object) const;
    [[nodiscard]] bool isSettled() const { return removals_.isEmpty() && unowned_.isEmpty(); }
    /// When decideDue should be called next; none if nothing waits.
    [[nodiscard]] std::optional<Time> nextDecision(Time now) const;
    /// After a first scan: what a later one finds new is reported.
    void rememberScan(NodeNumber root, const ObjectState& own);

    [[nodiscard]] bool isVacated(NodeNumber folder, std::string_view name) const {
        return removals_.documentThatLeft(folder, name) != 0;
    }

  private:
    struct Change {
        std::vector<FormerPlace> left;
        std::vector<FormerPlace> came;
        bool isNew = false;
        bool isModified = false;
        bool wasMissing = false;  ///< for a while it was nowhere
        bool isSilent = false;    ///< was there before anybody could ask
    };
    static constexpr int deepest = 4096;  ///< folders in one another; ends what runs in a circle
    /// Begins what the store keeps, in place of metadata, of a folder that could not be read.
    static constexpr const char* unreadableMark = "unreadable ";

    [[nodiscard]] static std::string joined(const std::string& folder, std::string_view name) {
        return folder + "/" + std::string(name);
    }

    [[nodiscard]] bool isPast() const;
    Change& changeOf(NodeNumber node);
    void arrive(const FolderReading& reading, const Sighting& sighting);
    void leave(ObjectIndex::EntryNumber entry);
    void vacate(std::uint32_t document, const PendingRemovals::VacatedName& vacatedName);
    void updateDeferral(NodeNumber node);
    void updateUndecided(NodeNumber node);
    void openCircle(NodeNumber node, NodeNumber folder);
    [[nodiscard]] std::string pathOfFolder(NodeNumber folder) const;
    [[nodiscard]] FormerPlace placeOf(ObjectIndex::EntryNumber entry) const;
    [[nodiscard]] FormerPlace placeIn(NodeNumber folder, std::string_view name,
                                      std::string path) const;
    [[nodiscard]] bool isUnsure(const FolderReading& reading, const Sighting& sighting,
                                const ObjectIndex::Node& node);
    void notice(const FolderReading& reading, const Sighting& sighting, NodeNumber object);
    void reportReplaced(const VolumeService::State::Recheck& recheck, NodeNumber folder);
    void disown(const ObjectIndex::Node& former, const FormerPlace& last);
    [[nodiscard]] UnownedRow rowOf(const UnownedDocuments::UnownedDocument& unowned);
    void renew(NodeNumber node, std::uint64_t generation);
    void renewFor(const VolumeService::IdentityRequest& request);
    void noticeFolder(const FolderReading& reading);
    void noticeMissing(const FolderReading& reading);
    void setState(NodeNumber node, const ObjectState& state);
    void setStateSeenAbove(NodeNumber node, const ObjectState& state);
    [[nodiscard]] bool isSilent(const FolderReading& reading, const ObjectState& state) const;

    void resolve(NodeNumber node, Change& change);
    [[nodiscard]] bool isAboveMoved(NodeNumber folder) const;
    void recordBelow(NodeNumber folder, std::string path);
    /// Records that the object left these places, and returns the first of them, which is not
    /// recorded: the removal, or the replacement, is recorded there. REQUIRES: `left` is not empty.
    [[nodiscard]] FormerPlace recordAllButFirst(NodeNumber node, std::span<const FormerPlace> left);
    void beginRemoval(NodeNumber node, const FormerPlace& last);
    [[nodiscard]] bool isDocument(const ObjectIndex::Node& node, std::string_view path) const;
    void record(FSEventFlags flags, NodeNumber node, FormerPlace place);
    void record(FSEventFlags flags, NodeNumber node, std::string path, NodeNumber folder) {
        record(flags, node, placeIn(folder, {}, std::move(path)));
    }
    void recordRemoval(FSEventFlags flags, const ObjectIndex::Node& node, const FormerPlace& last);
    [[nodiscard]] std::string coverOfPath(const std::string& path) const;

    [[nodiscard]] SaveVerdict judge(std::uint32_t document,
                                    const PendingRemovals::VacatedName& vacatedName, Time passStart,
                                    bool mustDecide) const;
    void decide(std::uint32_t document, Time passStart, bool mustDecide);
    void moveDocument(std::uint32_t document, const PendingRemovals::VacatedName& vacatedName,
                      NodeNumber replacement);
    void finish(NodeNumber node);
    void finishUnowned(const std::vector<std::uint32_t>& documents);
    void inheritMetadata(const std::string& metadata, const QSURL& url,
                         const ObjectIdentity& replacement);
    void captureMetadata();
    /// Takes up what the last run left undecided, where that can be decided or is below `root`.
    /// REQUIRES: indexMutex is held.
    void restore(NodeNumber root);
    void decideBelow(const QSURL& root);
    /// REQUIRES: indexMutex is held.
    void forgetRoot(NodeNumber root);
    void forgetBelow(NodeNumber folder, std::string path);

    VolumeService::State& state_;
    PendingRemovals removals_;
    std::unordered_map<NodeNumber, Change> changes_;
    std::vector<NodeNumber> changedInOrder_;
    std::unordered_set<NodeNumber> reportedFolders_;  ///< of a first scan: changed while it ran
    std::vector<NodeNumber> newFolders_;
    std::vector<std::pair<NodeNumber, std::string>> unsureNames_;
    std::vector<NodeNumber> removedFolders_;
    std::vector<EventRecord> events_;

    std::vector<UnownedRow> unownedToRestore_;  ///< these and the next are still to be taken up
    std::vector<ObjectIndex::ConflictingName> conflictsToResolve_;
    UnownedDocuments unowned_;
    bool hasLeft_ = false;
    std::vector<UnownedChange> unownedChanges_;  ///< not in the store yet
    /// Owners of names in folders whose numbers are others' now. Their rows name these numbers,
    /// so those that wait are written as being nowhere.
    std::vector<NodeNumber> ownersOfClosedNames_;
    std::deque<std::pair<Time, NodeNumber>> expiry_;  ///< of pending removals, in order
    std::unordered_map<NodeNumber, Time> births_;     ///< of what was seen to be made lately
    std::vector<NodeNumber> toCapture_;               ///< documents whose metadata may have changed
    bool tookNumbers_ = false;                        ///< file IDs; to be made durable
    Occasion occasion_ = Occasion::Live;
    Time now_{};
    std::int64_t silentBefore_ = 0;
};

}  // namespace platform

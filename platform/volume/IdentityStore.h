#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "platform/foundation/QSError.h"
#include "platform/foundation/QSUUID.h"
#include "platform/volume/EventTable.h"
#include "platform/volume/ObjectTable.h"
#include "platform/volume/SQLite.h"
#include "platform/volume/StoreLock.h"
#include "platform/volume/StoreState.h"
#include "platform/volume/TrashTable.h"
#include "platform/volume/UnownedTable.h"

namespace platform {

/// The SQLite store "volume.db" and its witness: rows of objects, and counters whose values never
/// repeat. Not synchronised, save where noted.
class IdentityStore {
  public:
    /// Finds or makes the store, locks it as long as this object lives, and fills `index` (empty
    /// before) with its rows. A damaged store is set aside as "volume.db.damaged-<n>" and a new one
    /// begun above the witnesses. A store that cannot be written to answers what it knows.
    /// Errors: EBUSY where another process holds the store, ENOTSUP for one of a later version.
    [[nodiscard]] static Result<std::unique_ptr<IdentityStore>> open(
        const std::string& dataFolder, const std::string& stateFolder,
        const VolumeFingerprint& volume, const std::optional<FolderWitness>& folderWitness,
        ObjectIndex& index);

    /// The volume that the store at that path is of; an error where it cannot be read.
    [[nodiscard]] static Result<VolumeFingerprint> volumeOf(const std::string& databasePath);

    [[nodiscard]] const StoreState& state() const { return state_; }
    [[nodiscard]] const std::string& path() const { return path_; }

    /// A number that no other call returns, also where the commit that it was meant for fails. It
    /// may be shown once a durable commit was confirmed. ENOSPC at the end of the counter.
    [[nodiscard]] Result<std::uint64_t> allocate(Counter counter);
    /// The ID of the last event that is confirmed. Any thread.
    [[nodiscard]] std::uint64_t lastEvent() const { return lastEvent_; }

    enum class Durability : std::uint8_t {
        Hints,       ///< places of objects: a power cut may undo them
        Identities,  ///< on disk on return
    };
    /// Writes whole rows in one transaction, all or nothing; fails with ENOSPC or EIO.
    /// Events get their IDs here, and need to be durable. What is durable must be confirmed before
    /// anything of it is shown.
    /// REQUIRES: the commit before is confirmed.
    Result<void> commit(std::span<const ObjectRow> rows, Durability durability,
                        std::span<EventRecord> events = {},
                        std::span<const UnownedChange> unowned = {});
    /// Records in the witness what the last durable commit stored; nothing to do where that is
    /// done. Where it fails the commit stands, and the call is to be repeated.
    Result<void> confirm();
    /// Whether this process has stored anything durably.
    [[nodiscard]] bool hasStored() const { return hasStored_; }
    /// Notes for other processes which one serves them, and at which socket.
    void noteService(pid_t process, std::string_view socket) const {
        lock_.noteService(process, socket);
    }
    /// True where the witness in the storage folder is to be written: what this process stored
    /// first, or reserved, is not in it. Then false until the next time.
    [[nodiscard]] bool popFolderWitnessDue() { return std::exchange(isFolderWitnessDue_, false); }
    /// What the witnesses say once everything is confirmed.
    [[nodiscard]] Witness::Record witnessRecord() const {
        return {state_.store, state_.history, state_.marks};
    }
    /// For a clean end, as the last call: writes `rows` and gives back what was reserved and not
    /// allocated.
    Result<void> finish(std::span<const ObjectRow> rows);
    /// Those that the last run left undecided; once.
    [[nodiscard]] std::vector<UnownedRow> popUnowned() { return std::exchange(unownedFound_, {}); }

    /// The records of the trash that the last run left; once.
    [[nodiscard]] std::vector<TrashRow> popTrash() { return std::exchange(trashFound_, {}); }
    /// Stores records of the trash in a transaction of its own. The end of the process cannot undo
    /// it; a power cut may, until the next durable commit. EROFS, ENOSPC or EIO.
    Result<void> writeTrash(std::span<const TrashRow> rows);

    /// after < ID <= upTo, at most `limit`. ESTALE where the history does not reach back to
    /// `after`, no event has that ID (it was an anchor of a history that went on otherwise), or it
    /// is damaged there.
    [[nodiscard]] Result<std::vector<EventRecord>> events(
        std::uint64_t after, std::uint64_t upTo, std::size_t limit,
        EventSelection selection = EventSelection::All);
    [[nodiscard]] std::uint64_t eventCount() const { return events_.count(); }

    EventTable::Retention retention;

  private:
    IdentityStore(std::string path, StoreLock lock, Witness witness)
        : path_(std::move(path)), lock_(std::move(lock)), witness_(std::move(witness)) {}

    /// ENOENT where there is no store, EUCLEAN for a damaged one.
    [[nodiscard]] Result<StoreState> readExisting(ObjectIndex& index);
    Result<void> openDatabase();
    Result<void> beginWriting();
    Result<void> prepareStatements();
    Result<void> create();
    void closeDatabase();
    void setAside();
    Result<void> writeTransaction(std::span<const ObjectRow> rows, const StoreState* state,
                                  std::span<const EventRecord> events,
                                  std::span<const UnownedChange> unowned);
    Result<void> setSyncing(bool syncs);
    Result<void> adopt(bool dropsObjects);
    [[nodiscard]] QSError reported(const QSError& error);

    const std::string path_;
    const StoreLock lock_;
    Witness witness_;
    StoreState state_;
    std::array<std::uint64_t, counterCount> used_{};  ///< only grows
    HighWaterMarks highest_;                          ///< in the rows that were found
    std::string doubt_;                               ///< about some of these rows
    bool isReadOnly_ = false;
    bool hasStored_ = false;  ///< this process, durably
    bool isFolderWitnessDue_ = false;
    std::uint64_t storedEvent_ = 0;  ///< the last one of a commit
    std::atomic<std::uint64_t> lastEvent_ = 0;
    bool isConfirmed_ = true;

    std::vector<UnownedRow> unownedFound_;
    std::vector<TrashRow> trashFound_;

    bool syncs_ = true;        ///< the database, with every commit
    SQLiteDatabase database_;  // outlives its statements
    ObjectTable objects_;
    EventTable events_;
    UnownedTable unowned_;
    TrashTable trash_;
    SQLiteStatement insertState_;
};

}  // namespace platform

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
#include "platform/volume/OrphanTable.h"
#include "platform/volume/SQLite.h"
#include "platform/volume/StoreLock.h"
#include "platform/volume/VolumeFingerprint.h"
#include "platform/volume/Witness.h"

namespace platform {

/// The facts that a store keeps about itself.
struct StoreState {
    QSUUID store;
    QSUUID history;
    HighWaterMarks marks;
    std::uint64_t floor = 0;  ///< the history knows everything after this event
    /// Inode numbers may have been handed out that the store knows nothing of, so none of an object
    /// that is new to it serves as a file ID any more.
    bool freshOnly = false;
    VolumeFingerprint volume;
    std::string trouble;  ///< why the store was last rebuilt or its history reset; empty = never
};

/// What to do with a store as found (none: missing or damaged) beside its witness and the volume.
struct StoreDecision {
    StoreState state;
    bool dropsObjects = false;  ///< the rows are of another volume
    bool isNews = false;        ///< `state` is to be written
};
[[nodiscard]] StoreDecision decideAboutStore(const std::optional<StoreState>& found,
                                             const std::optional<Witness::Record>& witness,
                                             const VolumeFingerprint& volume,
                                             const std::string& damage);

/// The SQLite store "volume.db", its lock and its witness: rows of objects, and counters whose
/// values never come again. Not synchronised, save where noted.
class IdentityStore {
  public:
    /// Takes the lock, finds or makes the store and fills `index` (empty before) with its rows. A
    /// damaged store is set aside as "volume.db.damaged-<n>" and a new one begun above the witness.
    [[nodiscard]] static Result<std::unique_ptr<IdentityStore>> open(
        const std::string& dataFolder, const std::string& stateFolder,
        const VolumeFingerprint& volume, ObjectIndex& index);

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
                        std::span<const OrphanChange> orphans = {});
    /// Records in the witness what the last durable commit stored; nothing to do where that is
    /// done. Where it fails the commit stands, and the call is to be repeated.
    Result<void> confirm();
    /// Those that the last run left undecided; once.
    [[nodiscard]] std::vector<OrphanRow> takeOrphans() { return std::exchange(orphansFound_, {}); }

    /// after < ID <= upTo, at most `limit`. ESTALE where the history does not reach back to
    /// `after`, never came as far, or is damaged there.
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
    Result<void> prepareStatements();
    Result<void> create();
    void closeDatabase();
    void setAside();
    Result<void> writeTransaction(std::span<const ObjectRow> rows, const StoreState* state,
                                  std::span<const EventRecord> events,
                                  std::span<const OrphanChange> orphans);
    Result<void> setSyncing(bool syncs);
    Result<void> writeState(const StoreState& state);
    Result<void> adopt(StoreState state, bool dropsObjects);
    [[nodiscard]] QSError reported(const QSError& error);

    const std::string path_;
    const StoreLock lock_;
    Witness witness_;
    StoreState state_;
    std::array<std::uint64_t, counterCount> used_{};  ///< only grows
    std::uint64_t storedEvent_ = 0;                   ///< the last one of a commit
    std::atomic<std::uint64_t> lastEvent_ = 0;
    bool isConfirmed_ = true;

    std::vector<OrphanRow> orphansFound_;

    bool syncs_ = true;        ///< the database, with every commit
    SQLiteDatabase database_;  // outlives its statements
    ObjectTable objects_;
    EventTable events_;
    OrphanTable orphans_;
    SQLiteStatement insertState_;
};

}  // namespace platform

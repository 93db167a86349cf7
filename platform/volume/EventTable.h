#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "platform/volume/EventHistory.h"
#include "platform/volume/SQLite.h"

namespace platform {

/// An event as it is stored: with the folder that it happened in, so that its path can be given as
/// the folder is called when somebody asks.
struct EventRecord {
    FSEvent event;             ///< path: as it was then
    std::uint64_t folder = 0;  ///< inode; 0 for a root and for an object without a folder
    std::uint64_t folderGeneration = 0;
    std::int64_t time = 0;  ///< seconds since 1970
};

/// The table of events in the store's database. Not synchronised.
class EventTable {
  public:
    static constexpr const char* schema =
        "CREATE TABLE events ("
        "id INTEGER PRIMARY KEY, flags INTEGER NOT NULL, file_id INTEGER NOT NULL,"
        "document_id INTEGER NOT NULL, kind INTEGER NOT NULL, folder INTEGER NOT NULL,"
        "folder_generation INTEGER NOT NULL, time INTEGER NOT NULL, path BLOB NOT NULL,"
        "sum INTEGER NOT NULL) STRICT;";

    Result<void> prepare(SQLiteDatabase& database);
    void close();

    /// REQUIRES: within a transaction; IDs ascend, above all that are there.
    Result<void> append(std::span<const EventRecord> events);
    /// To be called once a transaction that appended events, or dropped some, is committed.
    void noteAppended(std::size_t count) { count_ += count; }
    Result<void> recount();

    /// after < ID <= upTo, ascending, at most `limit`. EUCLEAN where a row is damaged.
    [[nodiscard]] Result<std::vector<EventRecord>> read(
        std::uint64_t after, std::uint64_t upTo, std::size_t limit,
        EventSelection selection = EventSelection::All);

    /// 0 where there are none.
    [[nodiscard]] Result<std::uint64_t> lastID();
    [[nodiscard]] Result<bool> has(std::uint64_t id);
    [[nodiscard]] std::uint64_t count() const { return count_; }

    struct Retention {
        std::uint64_t count = 1'000'000;
        /// Once an event is from before the one date, all from before the other are dropped, so
        /// that not every commit drops a few. None: no event is too old.
        std::optional<std::int64_t> tooOld = {};
        std::optional<std::int64_t> old = {};
    };
    /// The ID up to which events are to be dropped, 0 where none are: all but the latest `count`,
    /// and the old ones.
    [[nodiscard]] Result<std::uint64_t> lastToDrop(const Retention& retention);
    /// REQUIRES: within a transaction.
    Result<void> drop(std::uint64_t upTo);

  private:
    SQLiteStatement append_;
    SQLiteStatement read_;
    SQLiteStatement readDocumentIDs_;
    SQLiteStatement readDetachedRoots_;
    SQLiteStatement nth_;
    SQLiteStatement old_;
    SQLiteStatement drop_;
    SQLiteStatement last_;
    SQLiteStatement known_;
    SQLiteStatement countAll_;
    std::uint64_t count_ = 0;
};

}  // namespace platform

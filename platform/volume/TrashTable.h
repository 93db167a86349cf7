#pragma once

#include <span>
#include <vector>

#include "platform/volume/SQLite.h"
#include "platform/volume/TrashLedger.h"

namespace platform {

/// The table of the trash in the store's database. Not synchronised.
class TrashTable {
  public:
    static constexpr const char* schema =
        "CREATE TABLE trash ("
        "path BLOB NOT NULL, ino INTEGER NOT NULL, generation INTEGER NOT NULL,"
        "seconds INTEGER NOT NULL, nanoseconds INTEGER NOT NULL, former BLOB NOT NULL,"
        "sum INTEGER NOT NULL, PRIMARY KEY(path, ino, generation)) STRICT, WITHOUT ROWID;";

    Result<void> prepare(SQLiteDatabase& database);
    void close();

    /// Damaged rows are left out: without them the attributes say what is to be said.
    [[nodiscard]] Result<std::vector<TrashRow>> load(SQLiteDatabase& database) const;

    /// REQUIRES: within a transaction.
    Result<void> write(std::span<const TrashRow> rows);

  private:
    SQLiteStatement insert_;
    SQLiteStatement drop_;
};

}  // namespace platform

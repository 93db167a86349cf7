#pragma once

#include <span>

#include "platform/volume/ObjectIndex.h"
#include "platform/volume/SQLite.h"
#include "platform/volume/Witness.h"

namespace platform {

/// The tables of objects in the store's database: one row an object with the first of its names,
/// and one for each further name, or in no folder for the path of a root. Not synchronised.
class ObjectTable {
  public:
    static constexpr const char* schema =
        "CREATE TABLE objects ("
        "ino INTEGER PRIMARY KEY, generation INTEGER NOT NULL, file_id INTEGER NOT NULL,"
        "document_id INTEGER NOT NULL, parent INTEGER NOT NULL, name BLOB NOT NULL,"
        "kind INTEGER NOT NULL, stamp INTEGER NOT NULL, metadata BLOB NOT NULL,"
        "sum INTEGER NOT NULL) STRICT;"
        "CREATE TABLE names ("
        "ino INTEGER NOT NULL, parent INTEGER NOT NULL, name BLOB NOT NULL,"
        "PRIMARY KEY(ino, parent, name)) STRICT, WITHOUT ROWID;";

    Result<void> prepare(SQLiteDatabase& database);
    void close();

    /// Fills `index` with all rows. EUCLEAN where one is damaged.
    /// Raises `highest` to the file and document IDs in them. True where a number was on several
    /// rows: the index has it for none of these objects then.
    [[nodiscard]] Result<bool> load(SQLiteDatabase& database, ObjectIndex& index,
                                    HighWaterMarks& highest) const;

    /// REQUIRES: within a transaction.
    Result<void> write(std::span<const ObjectRow> rows);

  private:
    Result<void> writeNames(const ObjectRow& row);

    SQLiteStatement insertRow_;
    SQLiteStatement insertName_;
    SQLiteStatement dropNames_;
};

}  // namespace platform

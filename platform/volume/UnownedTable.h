#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/volume/ObjectIndex.h"
#include "platform/volume/SQLite.h"

namespace platform {

/// An unowned document: its object was removed and the inode number is another object's, while it
/// is not decided yet whether it has a replacement.
struct UnownedRow {
    std::uint32_t documentID = 0;
    std::uint64_t inode = 0;
    std::uint64_t fileID = 0;
    ObjectKind kind = ObjectKind::Other;
    std::uint64_t folder = 0;  ///< inode of the one it was in last; 0 = not known
    std::string path;          ///< presented, where it was last
    /// Its vacated name, and the folder's inode; 0 = none.
    std::uint64_t vacatedFolder = 0;
    std::string vacatedName = {};
};

/// What became of one since the last commit.
struct UnownedChange {
    std::uint32_t documentID = 0;
    std::optional<UnownedRow> row;  ///< none: it is decided
};

/// The table of documents whose removal is pending, in the store's database. Not synchronised.
class UnownedTable {
  public:
    static constexpr const char* schema =
        "CREATE TABLE orphans ("
        "document_id INTEGER PRIMARY KEY, ino INTEGER NOT NULL, file_id INTEGER NOT NULL,"
        "kind INTEGER NOT NULL, folder INTEGER NOT NULL, path BLOB NOT NULL,"
        "vacant_folder INTEGER NOT NULL, vacant_name BLOB NOT NULL,"
        "sum INTEGER NOT NULL) STRICT;";

    Result<void> prepare(SQLiteDatabase& database);
    void close();

    /// EUCLEAN where a row is damaged.
    [[nodiscard]] Result<std::vector<UnownedRow>> load(SQLiteDatabase& database) const;

    /// REQUIRES: within a transaction.
    Result<void> write(std::span<const UnownedChange> changes);

  private:
    SQLiteStatement insert_;
    SQLiteStatement drop_;
};

}  // namespace platform

#pragma once

#include "platform/volume/SQLite.h"
#include "platform/volume/StoreState.h"

namespace platform {

/// Makes the tables of a new store. REQUIRES: within a transaction.
Result<void> createSchema(SQLiteDatabase& database);

/// Brings a store of an earlier version to the present one, in one transaction: after an error the
/// store is as it was. Nothing is written where the version is the present one. Errors: ENOTSUP for
/// a later version, ENOENT where the database holds no table yet, EUCLEAN for any other.
Result<void> upgradeSchema(SQLiteDatabase& database);

/// EUCLEAN where the row is missing or does not match its checksum.
[[nodiscard]] Result<StoreState> readState(SQLiteDatabase& database);

[[nodiscard]] Result<SQLiteStatement> prepareToWriteState(SQLiteDatabase& database);
/// REQUIRES: within a transaction; `statement` is from prepareToWriteState.
Result<void> writeState(SQLiteStatement& statement, const StoreState& state);

/// An error that isDamage() knows.
[[nodiscard]] QSError storeDamage(std::string text);

}  // namespace platform

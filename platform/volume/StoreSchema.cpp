#include "platform/volume/StoreSchema.h"

#include <array>
#include <cerrno>
#include <charconv>

#include "platform/volume/EventTable.h"
#include "platform/volume/ObjectTable.h"
#include "platform/volume/RowSum.h"
#include "platform/volume/TrashTable.h"
#include "platform/volume/UnownedTable.h"

namespace platform {

namespace {

constexpr int schemaVersion = 5;
constexpr const char* schema = R"(
PRAGMA user_version = 5;
CREATE TABLE state (
    id INTEGER PRIMARY KEY CHECK (id = 1),
    store TEXT NOT NULL, history TEXT NOT NULL,
    event INTEGER NOT NULL, document INTEGER NOT NULL, file INTEGER NOT NULL,
    sequence INTEGER NOT NULL, floor INTEGER NOT NULL, fresh_only INTEGER NOT NULL,
    volume TEXT NOT NULL, root_inode INTEGER NOT NULL, root_generation INTEGER NOT NULL,
    trouble TEXT NOT NULL, sum INTEGER NOT NULL,
    start INTEGER NOT NULL DEFAULT 0) STRICT;
)";

/// What brings a store from one version to the next.
struct Upgrade {
    int from;
    const char* step;
};
constexpr std::array upgrades{
    // Version 3 took the end of a reservation for an anchor.
    Upgrade{3,
            "ALTER TABLE state ADD COLUMN start INTEGER NOT NULL DEFAULT 0;"
            "UPDATE state SET start = event; PRAGMA user_version = 4;"},
    // Version 4 kept no records of the trash.
    Upgrade{4,
            "CREATE TABLE trash (path BLOB NOT NULL, ino INTEGER NOT NULL,"
            "generation INTEGER NOT NULL, seconds INTEGER NOT NULL, nanoseconds INTEGER NOT NULL,"
            "former BLOB NOT NULL, sum INTEGER NOT NULL, PRIMARY KEY(path, ino, generation))"
            "STRICT, WITHOUT ROWID; PRAGMA user_version = 5;"},
};

std::uint64_t sumOf(const StoreState& state) {
    RowSum sum;
    sum.add(state.store.UUIDString()).add(state.history.UUIDString());
    for (const auto mark : state.marks.reserved) sum.add(mark);
    sum.add(state.marks.sequence)
        .add(state.floor)
        .add(state.freshOnly ? 1 : 0)
        .add(state.volume.uuid);
    return sum.add(state.volume.root.inode).add(state.volume.root.generation).value();
}

Result<int> number(SQLiteDatabase& database, std::string_view sql) {
    const auto text = database.value(sql);
    if (!text) return std::unexpected(text.error());
    int value = -1;
    std::from_chars(text->data(), text->data() + text->size(), value);
    return value;
}

QSError laterVersion(int version) {
    QSError error = errorFromErrno(ENOTSUP);
    error.userInfo.emplace(QSDescriptionErrorKey,
                           "the store has version " + std::to_string(version) +
                               ", made by a later Tidewell; this one reads up to version " +
                               std::to_string(schemaVersion) + " and leaves it as it is");
    return error;
}

}  // namespace

QSError storeDamage(std::string text) {
    QSError error = errorFromErrno(EUCLEAN);
    error.userInfo.emplace(QSDescriptionErrorKey, "store: " + std::move(text));
    return error;
}

Result<void> createSchema(SQLiteDatabase& database) {
    for (const char* sql : {schema, ObjectTable::schema, EventTable::schema, UnownedTable::schema,
                            TrashTable::schema}) {
        if (auto made = database.execute(sql); !made) return made;
    }
    return {};
}

Result<void> upgradeSchema(SQLiteDatabase& database) {
    auto version = number(database, "PRAGMA user_version");
    if (!version) return std::unexpected(version.error());
    if (*version > schemaVersion) return std::unexpected(laterVersion(*version));
    if (*version == schemaVersion) return {};
    if (*version == 0) {
        // A process was killed before its tables were made.
        const auto tables = number(database, "SELECT count(*) FROM sqlite_schema");
        if (!tables) return std::unexpected(tables.error());
        if (*tables == 0) return std::unexpected(errorFromErrno(ENOENT));
    }
    SQLiteTransaction transaction(database);
    if (auto begun = transaction.begin(); !begun) return begun;
    for (const auto& upgrade : upgrades) {
        if (upgrade.from != *version) continue;
        if (auto done = database.execute(upgrade.step); !done) return done;
        version = number(database, "PRAGMA user_version");
        if (!version) return std::unexpected(version.error());
    }
    if (*version != schemaVersion) {
        return std::unexpected(
            storeDamage("version " + std::to_string(*version) + " is not known"));
    }
    return transaction.commit();
}

Result<StoreState> readState(SQLiteDatabase& database) {
    auto statement = database.prepare(
        "SELECT store, history, event, document, file, sequence, floor, fresh_only, volume, "
        "root_inode, root_generation, trouble, sum, start FROM state WHERE id = 1");
    if (!statement) return std::unexpected(statement.error());
    const auto row = statement->step();
    if (!row) return std::unexpected(row.error());
    if (!*row) return std::unexpected(storeDamage("its state is missing"));
    const auto store = QSUUID::fromString(statement->columnBytes(0));
    const auto history = QSUUID::fromString(statement->columnBytes(1));
    if (!store || !history) return std::unexpected(storeDamage("its state is unreadable"));
    StoreState state;
    state.store = *store;
    state.history = *history;
    for (int i = 0; i < static_cast<int>(counterCount); ++i) {
        state.marks.reserved[static_cast<std::size_t>(i)] = statement->column(2 + i);
    }
    state.marks.sequence = statement->column(5);
    state.floor = statement->column(6);
    state.freshOnly = statement->column(7) != 0;
    state.volume.uuid = statement->columnBytes(8);
    state.volume.root = {statement->column(9), statement->column(10)};
    state.trouble = statement->columnBytes(11);
    state.start = statement->column(13);
    if (statement->column(12) != sumOf(state)) {
        return std::unexpected(storeDamage("its state does not match its checksum"));
    }
    return state;
}

Result<SQLiteStatement> prepareToWriteState(SQLiteDatabase& database) {
    return database.prepare(
        "INSERT OR REPLACE INTO state VALUES(1, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
}

Result<void> writeState(SQLiteStatement& statement, const StoreState& state) {
    statement.bindText(1, state.store.UUIDString());
    statement.bindText(2, state.history.UUIDString());
    for (int i = 0; i < static_cast<int>(counterCount); ++i) {
        statement.bind(3 + i, state.marks.reserved[static_cast<std::size_t>(i)]);
    }
    statement.bind(6, state.marks.sequence);
    statement.bind(7, state.floor);
    statement.bind(8, state.freshOnly ? 1 : 0);
    statement.bindText(9, state.volume.uuid);
    statement.bind(10, state.volume.root.inode);
    statement.bind(11, state.volume.root.generation);
    statement.bindText(12, state.trouble);
    statement.bind(13, sumOf(state));
    statement.bind(14, state.start);
    return statement.run();
}

}  // namespace platform

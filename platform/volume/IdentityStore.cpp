#include "platform/volume/IdentityStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <limits>

#include "platform/log/Log.h"

namespace platform {

namespace {

constexpr const char* schema = R"(
PRAGMA user_version = 1;
CREATE TABLE state (
    id INTEGER PRIMARY KEY CHECK (id = 1),
    store TEXT NOT NULL, history TEXT NOT NULL,
    event INTEGER NOT NULL, document INTEGER NOT NULL, file INTEGER NOT NULL,
    sequence INTEGER NOT NULL, fresh_only INTEGER NOT NULL,
    volume TEXT NOT NULL, root_inode INTEGER NOT NULL, root_generation INTEGER NOT NULL,
    trouble TEXT NOT NULL, sum INTEGER NOT NULL) STRICT;
CREATE TABLE objects (
    ino INTEGER PRIMARY KEY, generation INTEGER NOT NULL, file_id INTEGER NOT NULL,
    document_id INTEGER NOT NULL, parent INTEGER NOT NULL, name BLOB NOT NULL,
    kind INTEGER NOT NULL, sum INTEGER NOT NULL) STRICT;
)";
constexpr std::string_view schemaVersion = "1";

struct CounterRule {
    std::uint64_t step;  ///< reserved ahead
    std::uint64_t last;
};
constexpr std::array<CounterRule, counterCount> rules{{
    {65'536, std::numeric_limits<std::int64_t>::max()},
    {1'024, std::numeric_limits<std::uint32_t>::max()},
    {65'536, std::numeric_limits<std::int64_t>::max()},
}};

/// SQLite has no checksums of its own, and an identity that reads well but is another one is the
/// worst damage of all.
class Sum {
  public:
    Sum& add(std::uint64_t value) {
        value_ = std::rotl(value_ ^ (value * 0x9E3779B97F4A7C15), 29) * 0xBF58476D1CE4E5B9;
        return *this;
    }
    Sum& add(std::string_view text) {
        for (const char c : text) add(static_cast<std::uint8_t>(c));
        return add(text.size());
    }
    /// 32 bits, sign-extended so that they take four bytes in the file.
    [[nodiscard]] std::uint64_t value() const {
        const auto folded = static_cast<std::int32_t>(value_ ^ (value_ >> 32));
        return static_cast<std::uint64_t>(std::int64_t{folded});
    }

  private:
    std::uint64_t value_ = 0x7469646577656C6C;
};

std::uint64_t sumOf(const ObjectRow& row) {
    // Where it lies is checked on the disk before it is used.
    return Sum().add(row.inode).add(row.generation).add(row.fileID).add(row.documentID).value();
}

std::uint64_t sumOf(const StoreState& state) {
    Sum sum;
    sum.add(state.store.UUIDString()).add(state.history.UUIDString());
    for (const auto mark : state.marks.reserved) sum.add(mark);
    sum.add(state.marks.sequence).add(state.freshOnly ? 1 : 0).add(state.volume.uuid);
    return sum.add(state.volume.root.inode).add(state.volume.root.generation).value();
}

QSError damage(std::string text) {
    QSError error = errorFromErrno(EUCLEAN);
    error.userInfo.emplace(QSDescriptionErrorKey, "store: " + std::move(text));
    return error;
}

std::string textOf(const QSError& error) {
    const auto found = error.userInfo.find(QSDescriptionErrorKey);
    return found == error.userInfo.end() ? error.description() : found->second;
}

Result<StoreState> readState(SQLiteDatabase& database) {
    auto statement = database.prepare(
        "SELECT store, history, event, document, file, sequence, fresh_only, volume, root_inode, "
        "root_generation, trouble, sum FROM state WHERE id = 1");
    if (!statement) return std::unexpected(statement.error());
    const auto row = statement->step();
    if (!row) return std::unexpected(row.error());
    if (!*row) return std::unexpected(damage("its state is missing"));
    const auto store = QSUUID::fromString(statement->columnBytes(0));
    const auto history = QSUUID::fromString(statement->columnBytes(1));
    if (!store || !history) return std::unexpected(damage("its state is unreadable"));
    StoreState state;
    state.store = *store;
    state.history = *history;
    for (int i = 0; i < static_cast<int>(counterCount); ++i) {
        state.marks.reserved[static_cast<std::size_t>(i)] = statement->column(2 + i);
    }
    state.marks.sequence = statement->column(5);
    state.freshOnly = statement->column(6) != 0;
    state.volume.uuid = statement->columnBytes(7);
    state.volume.root = {statement->column(8), statement->column(9)};
    state.trouble = statement->columnBytes(10);
    if (statement->column(11) != sumOf(state)) {
        return std::unexpected(damage("its state does not match its checksum"));
    }
    return state;
}

bool exists(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0;
}

void syncFolder(const std::string& path) {
    const FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd) (void)fsync(fd.get());
}

}  // namespace

Result<std::unique_ptr<IdentityStore>> IdentityStore::open(const std::string& dataFolder,
                                                           const std::string& stateFolder,
                                                           const VolumeFingerprint& volume,
                                                           ObjectIndex& index) {
    for (const auto& folder : {dataFolder, stateFolder}) {
        if (auto made = makePrivateFolder(folder); !made) return std::unexpected(made.error());
    }
    auto lock = StoreLock::take(dataFolder + "/lock");
    if (!lock) return std::unexpected(lock.error());
    auto witness = Witness::open(stateFolder + "/witness");
    if (!witness) return std::unexpected(witness.error());
    const auto known = witness->record();
    std::unique_ptr<IdentityStore> store(
        new IdentityStore(dataFolder + "/volume.db", std::move(*lock), std::move(*witness)));

    auto found = store->readExisting(index);
    std::string trouble;
    if (!found) {
        const auto& error = found.error();
        if (!isDamage(error) && error.code != ENOENT) return std::unexpected(error);
        index.clear();
        store->closeDatabase();
        if (isDamage(error)) {
            trouble = textOf(error);
            store->setAside();
        }
        if (auto made = store->create(); !made) return std::unexpected(made.error());
        syncFolder(dataFolder);
    }
    const auto decision =
        decideAboutStore(found ? std::optional(*found) : std::nullopt, known, volume, trouble);
    const bool isTrouble =
        found ? decision.state.history != found->history : !decision.state.trouble.empty();
    if (isTrouble) {
        Log::platformLog().write(LogLevel::Error, [&] {
            return store->path_ + ": " + decision.state.trouble + "; going on with a new history";
        });
    }
    if (decision.dropsObjects) index.clear();
    if (decision.isNews) {
        if (auto done = store->adopt(decision.state, decision.dropsObjects); !done) {
            return std::unexpected(done.error());
        }
    }
    if (!decision.isNews) store->state_ = decision.state;
    store->used_ = store->committed_ = store->state_.marks.reserved;
    store->lastEvent_ = store->state_.marks[Counter::Event];
    return store;
}

Result<StoreState> IdentityStore::readExisting(ObjectIndex& index) {
    struct stat status {};
    if (lstat(path_.c_str(), &status) != 0 || status.st_size == 0) {
        return std::unexpected(errorFromErrno(ENOENT, path_));
    }
    if (exists(path_ + ".rebuild")) {
        return std::unexpected(damage("it was found damaged while it was in use"));
    }
    if (auto opened = openDatabase(); !opened) return std::unexpected(opened.error());
    const auto version = database_.value("PRAGMA user_version");
    if (!version) return std::unexpected(version.error());
    if (*version != schemaVersion) {
        return std::unexpected(damage("version " + *version + " is not known"));
    }
    const auto check = database_.value("PRAGMA quick_check(1)");
    if (!check) return std::unexpected(check.error());
    if (*check != "ok") return std::unexpected(damage(*check));
    auto state = readState(database_);
    if (!state) return state;
    if (auto loaded = loadObjects(index); !loaded) return std::unexpected(loaded.error());
    if (auto ready = prepareStatements(); !ready) return std::unexpected(ready.error());
    return state;
}

Result<void> IdentityStore::loadObjects(ObjectIndex& index) {
    auto statement = database_.prepare(
        "SELECT ino, generation, file_id, document_id, parent, name, kind, sum FROM objects");
    if (!statement) return std::unexpected(statement.error());
    ObjectRow row;
    for (;;) {
        const auto more = statement->step();
        if (!more) return std::unexpected(more.error());
        if (!*more) return {};
        row.inode = statement->column(0);
        row.generation = statement->column(1);
        row.fileID = statement->column(2);
        row.documentID = static_cast<std::uint32_t>(statement->column(3));
        row.parent = statement->column(4);
        row.name = statement->columnBytes(5);
        row.kind = static_cast<ObjectKind>(statement->column(6));
        if (statement->column(7) != sumOf(row) || statement->column(3) != row.documentID) {
            return std::unexpected(damage("a row does not match its checksum"));
        }
        index.load(row);
    }
}

Result<void> IdentityStore::openDatabase() {
    auto opened = SQLiteDatabase::open(path_);
    if (!opened) return std::unexpected(opened.error());
    database_ = std::move(*opened);
    return database_.execute(
        "PRAGMA busy_timeout = 2000; PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL;");
}

Result<void> IdentityStore::prepareStatements() {
    auto row = database_.prepare(
        "INSERT OR REPLACE INTO objects(ino, generation, file_id, document_id, parent, name, kind, "
        "sum) VALUES(?, ?, ?, ?, ?, ?, ?, ?)");
    if (!row) return std::unexpected(row.error());
    auto state = database_.prepare(
        "INSERT OR REPLACE INTO state VALUES(1, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
    if (!state) return std::unexpected(state.error());
    insertRow_ = std::move(*row);
    insertState_ = std::move(*state);
    return {};
}

Result<void> IdentityStore::create() {
    if (auto opened = openDatabase(); !opened) return opened;
    SQLiteTransaction transaction(database_);
    if (auto begun = transaction.begin(); !begun) return begun;
    if (auto made = database_.execute(schema); !made) return made;
    if (auto committed = transaction.commit(); !committed) return committed;
    return prepareStatements();
}

void IdentityStore::closeDatabase() {
    insertRow_ = {};
    insertState_ = {};
    database_ = {};
}

void IdentityStore::setAside() {
    std::string target;
    for (int n = 1; target.empty() || exists(target); ++n) {
        target = path_ + ".damaged-" + std::to_string(n);
    }
    for (const char* suffix : {"", "-wal", "-shm"}) {
        // What cannot be moved must still not be read again.
        if (rename((path_ + suffix).c_str(), (target + suffix).c_str()) != 0) {
            (void)unlink((path_ + suffix).c_str());
        }
    }
    (void)unlink((path_ + ".rebuild").c_str());
}

Result<void> IdentityStore::adopt(StoreState state, bool dropsObjects) {
    const std::uint64_t known = witness_.record() ? witness_.record()->marks.sequence : 0;
    state.marks.sequence = std::max(state.marks.sequence, known) + 1;
    if (auto written = writeTransaction({}, &state, dropsObjects); !written) {
        return std::unexpected(reported(written.error()));
    }
    if (auto seen = witness_.write({state.store, state.history, state.marks}); !seen) return seen;
    state_ = std::move(state);
    return {};
}

Result<std::uint64_t> IdentityStore::take(Counter counter) {
    const auto index = static_cast<std::size_t>(counter);
    if (used_[index] >= rules[index].last) {
        QSError error = errorFromErrno(ENOSPC);
        error.userInfo.emplace(QSDescriptionErrorKey, "store: all identifiers are used up");
        return std::unexpected(std::move(error));
    }
    return ++used_[index];
}

Result<void> IdentityStore::commit(std::span<const ObjectRow> rows, Durability durability) {
    const bool isDurable = durability == Durability::Identities;
    StoreState next;
    if (isDurable) {
        next = state_;
        ++next.marks.sequence;
        for (std::size_t i = 0; i < counterCount; ++i) {
            auto& reserved = next.marks.reserved[i];
            if (used_[i] <= reserved) continue;
            const auto ahead = std::min(rules[i].step, rules[i].last - used_[i]);
            reserved = used_[i] + ahead;
        }
    }
    auto done = writeTransaction(rows, isDurable ? &next : nullptr, false);
    if (done && isDurable) {
        // What follows must never repeat a sequence number that the store may hold already.
        state_.marks = next.marks;
        done = witness_.write({next.store, next.history, next.marks});
    }
    if (!done) {
        if (isDurable) giveBack();
        return std::unexpected(reported(done.error()));
    }
    if (isDurable) {
        committed_ = used_;
        lastEvent_ = committed_[static_cast<std::size_t>(Counter::Event)];
    }
    return {};
}

Result<void> IdentityStore::writeTransaction(std::span<const ObjectRow> rows,
                                             const StoreState* state, bool dropsObjects) {
    SQLiteTransaction transaction(database_);
    if (auto begun = transaction.begin(); !begun) return begun;
    if (dropsObjects) {
        if (auto dropped = database_.execute("DELETE FROM objects"); !dropped) return dropped;
    }
    for (const auto& row : rows) {
        if (auto written = writeRow(row); !written) return written;
    }
    if (state) {
        if (auto written = writeState(*state); !written) return written;
    }
    return transaction.commit();
}

Result<void> IdentityStore::writeRow(const ObjectRow& row) {
    insertRow_.bind(1, row.inode);
    insertRow_.bind(2, row.generation);
    insertRow_.bind(3, row.fileID);
    insertRow_.bind(4, row.documentID);
    insertRow_.bind(5, row.parent);
    insertRow_.bindBlob(6, row.name);
    insertRow_.bind(7, static_cast<std::uint64_t>(row.kind));
    insertRow_.bind(8, sumOf(row));
    return insertRow_.run();
}

Result<void> IdentityStore::writeState(const StoreState& state) {
    insertState_.bindText(1, state.store.UUIDString());
    insertState_.bindText(2, state.history.UUIDString());
    for (int i = 0; i < static_cast<int>(counterCount); ++i) {
        insertState_.bind(3 + i, state.marks.reserved[static_cast<std::size_t>(i)]);
    }
    insertState_.bind(6, state.marks.sequence);
    insertState_.bind(7, state.freshOnly ? 1 : 0);
    insertState_.bindText(8, state.volume.uuid);
    insertState_.bind(9, state.volume.root.inode);
    insertState_.bind(10, state.volume.root.generation);
    insertState_.bindText(11, state.trouble);
    insertState_.bind(12, sumOf(state));
    return insertState_.run();
}

QSError IdentityStore::reported(const QSError& error) {
    Log::platformLog().write(LogLevel::Error, [&] { return path_ + ": " + textOf(error); });
    if (isDamage(error)) {
        // The next start sets the store aside, also if its own check finds nothing wrong.
        const FileDescriptor mark(
            ::open((path_ + ".rebuild").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    }
    QSError result = errorFromErrno(error.code == ENOSPC ? ENOSPC : EIO);
    result.userInfo = error.userInfo;
    return result;
}

}  // namespace platform

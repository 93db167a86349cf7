#include "platform/volume/IdentityStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <limits>

#include "platform/log/Log.h"
#include "platform/volume/RowSum.h"

namespace platform {

namespace {

constexpr const char* schema = R"(
PRAGMA user_version = 3;
CREATE TABLE state (
    id INTEGER PRIMARY KEY CHECK (id = 1),
    store TEXT NOT NULL, history TEXT NOT NULL,
    event INTEGER NOT NULL, document INTEGER NOT NULL, file INTEGER NOT NULL,
    sequence INTEGER NOT NULL, floor INTEGER NOT NULL, fresh_only INTEGER NOT NULL,
    volume TEXT NOT NULL, root_inode INTEGER NOT NULL, root_generation INTEGER NOT NULL,
    trouble TEXT NOT NULL, sum INTEGER NOT NULL) STRICT;
)";
constexpr std::string_view schemaVersion = "3";

struct CounterRule {
    std::uint64_t step;  ///< reserved ahead
    std::uint64_t last;
};
constexpr std::array<CounterRule, counterCount> rules{{
    {65'536, std::numeric_limits<std::int64_t>::max()},
    {1'024, std::numeric_limits<std::uint32_t>::max()},
    {65'536, std::numeric_limits<std::int64_t>::max()},
}};

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
        "SELECT store, history, event, document, file, sequence, floor, fresh_only, volume, "
        "root_inode, root_generation, trouble, sum FROM state WHERE id = 1");
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
    state.floor = statement->column(6);
    state.freshOnly = statement->column(7) != 0;
    state.volume.uuid = statement->columnBytes(8);
    state.volume.root = {statement->column(9), statement->column(10)};
    state.trouble = statement->columnBytes(11);
    if (statement->column(12) != sumOf(state)) {
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
    if (decision.dropsObjects) {
        index.clear();
        store->orphansFound_.clear();
    }
    if (decision.isNews) {
        if (auto done = store->adopt(decision.state, decision.dropsObjects); !done) {
            return std::unexpected(done.error());
        }
    }
    if (!decision.isNews) store->state_ = decision.state;
    store->used_ = store->state_.marks.reserved;
    store->lastEvent_ = store->storedEvent_ = store->state_.marks[Counter::Event];
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
    const auto loaded = objects_.load(database_, index);
    auto orphans = orphans_.load(database_);
    if (!loaded || !orphans) {
        const auto& error = loaded ? orphans.error() : loaded.error();
        return std::unexpected(error.code == EUCLEAN ? damage("a row does not match its checksum")
                                                     : error);
    }
    orphansFound_ = std::move(*orphans);
    if (auto ready = prepareStatements(); !ready) return std::unexpected(ready.error());
    return state;
}

Result<void> IdentityStore::openDatabase() {
    auto opened = SQLiteDatabase::open(path_);
    if (!opened) return std::unexpected(opened.error());
    database_ = std::move(*opened);
    return database_.execute(
        "PRAGMA busy_timeout = 2000; PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL;");
}

Result<void> IdentityStore::prepareStatements() {
    if (auto done = objects_.prepare(database_); !done) return done;
    if (auto done = events_.prepare(database_); !done) return done;
    if (auto done = orphans_.prepare(database_); !done) return done;
    auto state = database_.prepare(
        "INSERT OR REPLACE INTO state VALUES(1, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
    if (!state) return std::unexpected(state.error());
    insertState_ = std::move(*state);
    return {};
}

Result<void> IdentityStore::create() {
    if (auto opened = openDatabase(); !opened) return opened;
    SQLiteTransaction transaction(database_);
    if (auto begun = transaction.begin(); !begun) return begun;
    for (const char* sql : {schema, ObjectTable::schema, EventTable::schema, OrphanTable::schema}) {
        if (auto made = database_.execute(sql); !made) return made;
    }
    if (auto committed = transaction.commit(); !committed) return committed;
    return prepareStatements();
}

void IdentityStore::closeDatabase() {
    objects_.close();
    events_.close();
    orphans_.close();
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
    if (dropsObjects) {
        if (auto done =
                database_.execute("DELETE FROM objects; DELETE FROM names; DELETE FROM orphans");
            !done) {
            return std::unexpected(reported(done.error()));
        }
    }
    if (auto written = writeTransaction({}, &state, {}, {}); !written) {
        return std::unexpected(reported(written.error()));
    }
    if (auto seen = witness_.write({state.store, state.history, state.marks}); !seen) return seen;
    state_ = std::move(state);
    return {};
}

Result<std::uint64_t> IdentityStore::allocate(Counter counter) {
    const auto index = static_cast<std::size_t>(counter);
    if (used_[index] >= rules[index].last) {
        QSError error = errorFromErrno(ENOSPC);
        error.userInfo.emplace(QSDescriptionErrorKey, "store: all identifiers are used up");
        return std::unexpected(std::move(error));
    }
    return ++used_[index];
}

Result<void> IdentityStore::commit(std::span<const ObjectRow> rows, Durability durability,
                                   std::span<EventRecord> events,
                                   std::span<const OrphanChange> orphans) {
    for (auto& record : events) {
        const auto id = allocate(Counter::Event);
        if (!id) return std::unexpected(id.error());
        record.event.id = *id;
    }
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
        if (!events.empty()) {
            const auto last = events_.lastToDrop(retention);
            if (last) next.floor = std::max(next.floor, *last);
        }
    }
    auto done = setSyncing(isDurable);
    if (done) done = writeTransaction(rows, isDurable ? &next : nullptr, events, orphans);
    if (!done) return std::unexpected(reported(done.error()));
    if (isDurable) {
        state_.marks = next.marks;
        state_.floor = next.floor;
        isConfirmed_ = false;
    }
    if (!events.empty()) storedEvent_ = events.back().event.id;
    return {};
}

Result<void> IdentityStore::confirm() {
    if (isConfirmed_) return {};
    if (auto done = witness_.write({state_.store, state_.history, state_.marks}); !done) {
        return std::unexpected(reported(done.error()));
    }
    isConfirmed_ = true;
    lastEvent_ = storedEvent_;
    return {};
}

/// What is not synced reaches the disk with the next commit that is: they share one log.
Result<void> IdentityStore::setSyncing(bool syncs) {
    if (syncs == syncs_) return {};
    auto done =
        database_.execute(syncs ? "PRAGMA synchronous = FULL" : "PRAGMA synchronous = NORMAL");
    if (done) syncs_ = syncs;
    return done;
}

Result<std::vector<EventRecord>> IdentityStore::events(std::uint64_t after, std::uint64_t upTo,
                                                       std::size_t limit,
                                                       EventSelection selection) {
    if (after < state_.floor || after > lastEvent_) {
        return std::unexpected(errorFromErrno(ESTALE));
    }
    auto found = events_.read(after, std::min<std::uint64_t>(upTo, lastEvent_), limit, selection);
    if (found) return found;
    (void)reported(found.error());
    return std::unexpected(errorFromErrno(ESTALE));
}

Result<void> IdentityStore::writeTransaction(std::span<const ObjectRow> rows,
                                             const StoreState* state,
                                             std::span<const EventRecord> events,
                                             std::span<const OrphanChange> orphans) {
    SQLiteTransaction transaction(database_);
    if (auto begun = transaction.begin(); !begun) return begun;
    if (auto written = objects_.write(rows); !written) return written;
    if (auto written = orphans_.write(orphans); !written) return written;
    if (auto written = events_.append(events); !written) return written;
    const bool drops = state && state->floor > state_.floor;
    if (drops) {
        if (auto dropped = events_.drop(state->floor); !dropped) return dropped;
    }
    if (state) {
        if (auto written = writeState(*state); !written) return written;
    }
    if (auto committed = transaction.commit(); !committed) return committed;
    events_.noteAppended(events.size());
    if (drops) (void)events_.recount();
    return {};
}

Result<void> IdentityStore::writeState(const StoreState& state) {
    insertState_.bindText(1, state.store.UUIDString());
    insertState_.bindText(2, state.history.UUIDString());
    for (int i = 0; i < static_cast<int>(counterCount); ++i) {
        insertState_.bind(3 + i, state.marks.reserved[static_cast<std::size_t>(i)]);
    }
    insertState_.bind(6, state.marks.sequence);
    insertState_.bind(7, state.floor);
    insertState_.bind(8, state.freshOnly ? 1 : 0);
    insertState_.bindText(9, state.volume.uuid);
    insertState_.bind(10, state.volume.root.inode);
    insertState_.bind(11, state.volume.root.generation);
    insertState_.bindText(12, state.trouble);
    insertState_.bind(13, sumOf(state));
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

#include "platform/volume/IdentityStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <limits>

#include "platform/log/Log.h"
#include "platform/volume/StoreSchema.h"

namespace platform {

namespace {

struct CounterRule {
    std::uint64_t step;  ///< reserved ahead
    std::uint64_t last;
};
constexpr std::array<CounterRule, counterCount> rules{{
    {65'536, std::numeric_limits<std::int64_t>::max()},
    {1'024, std::numeric_limits<std::uint32_t>::max()},
    {65'536, std::numeric_limits<std::int64_t>::max()},
}};

std::string textOf(const QSError& error) {
    const auto found = error.userInfo.find(QSDescriptionErrorKey);
    return found == error.userInfo.end() ? error.description() : found->second;
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

Result<VolumeFingerprint> IdentityStore::volumeOf(const std::string& databasePath) {
    auto database = SQLiteDatabase::open(databasePath);
    if (!database) return std::unexpected(database.error());
    auto state = readState(*database);
    if (!state) return std::unexpected(state.error());
    return state->volume;
}

Result<std::unique_ptr<IdentityStore>> IdentityStore::open(
    const std::string& dataFolder, const std::string& stateFolder, const VolumeFingerprint& volume,
    const std::optional<FolderWitness>& folderWitness, ObjectIndex& index) {
    for (const auto& folder : {dataFolder, stateFolder}) {
        if (auto made = makePrivateFolder(folder); !made) return std::unexpected(made.error());
    }
    auto lock = StoreLock::acquire(dataFolder + "/lock");
    if (!lock) return std::unexpected(lock.error());
    auto witness = Witness::open(stateFolder + "/witness");
    if (!witness) return std::unexpected(witness.error());
    const auto known = witness->record();
    std::unique_ptr<IdentityStore> store(
        new IdentityStore(dataFolder + "/volume.db", std::move(*lock), std::move(*witness)));

    auto found = store->readExisting(index);
    std::string trouble = store->doubt_;
    if (!found) {
        const auto& error = found.error();
        if (error.code == EBUSY) return std::unexpected(store->lock_.inUse());
        const bool isUseless = isDamage(error) && !store->isReadOnly_;
        if (!isUseless && error.code != ENOENT) return std::unexpected(error);
        index.clear();
        store->closeDatabase();
        if (isDamage(error)) {
            trouble = textOf(error);
            store->setAside();
        }
        if (auto made = store->create(); !made) return std::unexpected(made.error());
        (void)unlink((store->path_ + ".rebuild").c_str());
        syncFolder(dataFolder);
    }
    store->lock_.noteHolder();
    const auto decision = decideAboutStore(found ? std::optional(*found) : std::nullopt, known,
                                           folderWitness, volume, trouble);
    const bool isTrouble =
        found ? decision.state.history != found->history : !decision.state.trouble.empty();
    if (isTrouble) {
        Log::platformLog().write(LogLevel::Error, [&] {
            return store->path_ + ": " + decision.state.trouble + "; going on with a new history";
        });
    }
    if (decision.dropsObjects) {
        index.clear();
        store->unownedFound_.clear();
        store->trashFound_.clear();
    }
    store->state_ = decision.state;
    if (decision.isChanged && !store->isReadOnly_) {
        if (auto done = store->adopt(decision.dropsObjects); !done) {
            return std::unexpected(done.error());
        }
    }
    store->used_ = store->state_.marks.above(store->highest_).reserved;
    const auto last = store->highest_[Counter::Event];
    store->lastEvent_ = store->storedEvent_ =
        std::max({last, store->state_.floor, store->state_.start});
    return store;
}

Result<StoreState> IdentityStore::readExisting(ObjectIndex& index) {
    struct stat status {};
    if (lstat(path_.c_str(), &status) != 0 || status.st_size == 0) {
        return std::unexpected(errorFromErrno(ENOENT, path_));
    }
    const auto folder = path_.substr(0, path_.rfind('/'));
    isReadOnly_ = faccessat(AT_FDCWD, folder.c_str(), W_OK | X_OK, AT_EACCESS) != 0 ||
                  faccessat(AT_FDCWD, path_.c_str(), W_OK, AT_EACCESS) != 0;
    if (!isReadOnly_ && exists(path_ + ".rebuild")) {
        return std::unexpected(storeDamage("it was found damaged while it was in use"));
    }
    if (auto opened = openDatabase(); !opened) return std::unexpected(opened.error());
    if (auto taken = upgradeSchema(database_); !taken) return std::unexpected(taken.error());
    if (auto ready = beginWriting(); !ready) return std::unexpected(ready.error());
    const auto check = database_.value("PRAGMA quick_check(1)");
    if (!check) return std::unexpected(check.error());
    if (*check != "ok") return std::unexpected(storeDamage(*check));
    auto state = readState(database_);
    if (!state) return state;
    const auto loaded = objects_.load(database_, index, highest_);
    auto pending = unowned_.load(database_);
    auto trash = trash_.load(database_);
    if (!loaded || !pending || !trash) {
        const auto& error = !loaded ? loaded.error() : !pending ? pending.error() : trash.error();
        return std::unexpected(
            error.code == EUCLEAN ? storeDamage("a row does not match its checksum") : error);
    }
    if (*loaded) doubt_ = "store: two objects had one identifier, and have it no more";
    unownedFound_ = std::move(*pending);
    trashFound_ = std::move(*trash);
    for (const auto& unowned : unownedFound_) {
        highest_.raise(Counter::Document, unowned.documentID);
        highest_.raise(Counter::File, unowned.fileID);
    }
    if (auto ready = prepareStatements(); !ready) return std::unexpected(ready.error());
    const auto last = events_.lastID();
    if (!last) return std::unexpected(last.error());
    highest_.raise(Counter::Event, *last);
    return state;
}

Result<void> IdentityStore::openDatabase() {
    auto opened = isReadOnly_ ? SQLiteDatabase::openReadOnly(path_) : SQLiteDatabase::open(path_);
    if (!opened) return std::unexpected(opened.error());
    database_ = std::move(*opened);
    database_.setMovesLogAtEnd(false);
    return {};
}

Result<void> IdentityStore::beginWriting() {
    if (isReadOnly_) return {};
    database_.setMovesLogAtEnd(true);
    return database_.execute(
        "PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL;"
        "PRAGMA journal_size_limit = 4194304;");
}

Result<void> IdentityStore::prepareStatements() {
    if (auto done = objects_.prepare(database_); !done) return done;
    if (auto done = events_.prepare(database_); !done) return done;
    if (auto done = unowned_.prepare(database_); !done) return done;
    if (auto done = trash_.prepare(database_); !done) return done;
    auto state = prepareToWriteState(database_);
    if (!state) return std::unexpected(state.error());
    insertState_ = std::move(*state);
    return {};
}

Result<void> IdentityStore::create() {
    if (auto opened = openDatabase(); !opened) return opened;
    if (auto ready = beginWriting(); !ready) return ready;
    SQLiteTransaction transaction(database_);
    if (auto begun = transaction.begin(); !begun) return begun;
    if (auto made = createSchema(database_); !made) return made;
    if (auto committed = transaction.commit(); !committed) return committed;
    return prepareStatements();
}

void IdentityStore::closeDatabase() {
    objects_.close();
    events_.close();
    unowned_.close();
    trash_.close();
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
}

Result<void> IdentityStore::adopt(bool dropsObjects) {
    const std::uint64_t known = witness_.record() ? witness_.record()->marks.sequence : 0;
    state_.marks.sequence = std::max(state_.marks.sequence, known) + 1;
    if (dropsObjects) {
        if (auto done =
                database_.execute("DELETE FROM objects; DELETE FROM names; DELETE FROM orphans;"
                                  "DELETE FROM trash");
            !done) {
            return std::unexpected(reported(done.error()));
        }
    }
    if (auto written = writeTransaction({}, &state_, {}, {}); !written) {
        return std::unexpected(reported(written.error()));
    }
    isFolderWitnessDue_ = true;
    return witness_.write(witnessRecord());
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
                                   std::span<const UnownedChange> unowned) {
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
    if (done) done = writeTransaction(rows, isDurable ? &next : nullptr, events, unowned);
    if (!done) return std::unexpected(reported(done.error()));
    if (isDurable) {
        isFolderWitnessDue_ |= !hasStored_ || next.marks.reserved != state_.marks.reserved;
        hasStored_ = true;
        state_ = next;
        isConfirmed_ = false;
    }
    if (!events.empty()) storedEvent_ = events.back().event.id;
    return {};
}

Result<void> IdentityStore::confirm() {
    if (isConfirmed_) return {};
    if (auto done = witness_.write(witnessRecord()); !done) {
        return std::unexpected(reported(done.error()));
    }
    isConfirmed_ = true;
    lastEvent_ = storedEvent_;
    return {};
}

Result<void> IdentityStore::finish(std::span<const ObjectRow> rows) {
    if (auto done = confirm(); !done) return done;
    StoreState next = state_;
    for (std::size_t i = 0; i < counterCount; ++i) {
        auto& reserved = next.marks.reserved[i];
        reserved = std::min(reserved, used_[i]);
    }
    if (next.marks == state_.marks) {
        return rows.empty() ? Result<void>() : commit(rows, Durability::Hints);
    }
    ++next.marks.sequence;
    auto done = setSyncing(true);
    if (done) done = writeTransaction(rows, &next, {}, {});
    if (!done) return std::unexpected(reported(done.error()));
    state_ = next;
    isConfirmed_ = false;
    return confirm();
}

Result<void> IdentityStore::writeTrash(std::span<const TrashRow> rows) {
    if (isReadOnly_) return std::unexpected(errorFromErrno(EROFS, path_));
    auto done = setSyncing(false);
    SQLiteTransaction transaction(database_);
    if (done) done = transaction.begin();
    if (done) done = trash_.write(rows);
    if (done) done = transaction.commit();
    if (!done) return std::unexpected(reported(done.error()));
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
    // What was between the last event and the end of its reservation was an anchor of another
    // history, which an older copy of the store does not know.
    const auto isAnchor =
        after == state_.floor || after == state_.start ? true : events_.has(after);
    if (isAnchor && !*isAnchor) return std::unexpected(errorFromErrno(ESTALE));
    if (!isAnchor) {
        (void)reported(isAnchor.error());
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
                                             std::span<const UnownedChange> unowned) {
    SQLiteTransaction transaction(database_);
    if (auto begun = transaction.begin(); !begun) return begun;
    if (auto written = objects_.write(rows); !written) return written;
    if (auto written = unowned_.write(unowned); !written) return written;
    if (auto written = events_.append(events); !written) return written;
    const bool drops = state && state->floor > state_.floor;
    if (drops) {
        if (auto dropped = events_.drop(state->floor); !dropped) return dropped;
    }
    if (state) {
        if (auto written = writeState(insertState_, *state); !written) return written;
    }
    if (auto committed = transaction.commit(); !committed) return committed;
    events_.noteAppended(events.size());
    if (drops) (void)events_.recount();
    return {};
}

QSError IdentityStore::reported(const QSError& error) {
    Log::platformLog().write(LogLevel::Error, [&] { return path_ + ": " + textOf(error); });
    if (isDamage(error)) {
        // The next start sets the store aside, also if its own check finds nothing wrong.
        const FileDescriptor mark(
            ::open((path_ + ".rebuild").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    }
    const bool isPlain = error.code == ENOSPC || error.code == EROFS || error.code == EACCES;
    QSError result = errorFromErrno(isPlain ? static_cast<int>(error.code) : EIO);
    result.userInfo = error.userInfo;
    return result;
}

}  // namespace platform

#include "platform/volume/SQLite.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace platform {

namespace {

int errnoOfCode(sqlite3* database, int code) {
    if (code == SQLITE_IOERR_SHORT_READ || code == SQLITE_IOERR_CORRUPTFS) return EUCLEAN;
    const int primary = code & 0xFF;
    const int system = database ? sqlite3_system_errno(database) : 0;
    const bool isOfSystem = primary == SQLITE_IOERR || primary == SQLITE_CANTOPEN;
    if (isOfSystem && (system == ENOSPC || system == EDQUOT)) return ENOSPC;
    if (isOfSystem && (system == EROFS || system == EACCES)) return system;
    switch (primary) {
        case SQLITE_FULL:
            return ENOSPC;
        case SQLITE_ERROR:  // our statements are fixed: a table or column is not as it should be
        case SQLITE_CORRUPT:
        case SQLITE_NOTADB:
            return EUCLEAN;
        case SQLITE_BUSY:
            return EBUSY;
        case SQLITE_PERM:
        case SQLITE_AUTH:
            return EACCES;
        case SQLITE_READONLY:
            return EROFS;
        case SQLITE_NOMEM:
            return ENOMEM;
        default:
            return EIO;
    }
}

QSError errorOf(sqlite3* database, int code) {
    QSError error = errorFromErrno(errnoOfCode(database, code));
    std::string text = database ? sqlite3_errmsg(database) : sqlite3_errstr(code);
    if (error.code == ENOSPC) text = "the disk is full";
    if (error.code == EROFS || error.code == EACCES) text = "it is read-only";
    error.userInfo.emplace(QSDescriptionErrorKey, "store: " + std::move(text));
    return error;
}

}  // namespace

bool isDamage(const QSError& error) {
    return error.domain == QSPOSIXErrorDomain && error.code == EUCLEAN;
}

void SQLiteStatement::Finalize::operator()(sqlite3_stmt* statement) const {
    sqlite3_finalize(statement);
}

void SQLiteStatement::bind(int parameter, std::uint64_t value) {
    sqlite3_bind_int64(statement_.get(), parameter, static_cast<sqlite3_int64>(value));
}

void SQLiteStatement::bindText(int parameter, std::string_view text) {
    sqlite3_bind_text64(statement_.get(), parameter, text.data(), text.size(), SQLITE_TRANSIENT,
                        SQLITE_UTF8);
}

void SQLiteStatement::bindBlob(int parameter, std::string_view bytes) {
    // A null pointer would bind NULL instead of an empty blob.
    const char* data = bytes.empty() ? "" : bytes.data();
    sqlite3_bind_blob64(statement_.get(), parameter, data, bytes.size(), SQLITE_STATIC);
}

Result<bool> SQLiteStatement::step() {
    const int code = sqlite3_step(statement_.get());
    if (code == SQLITE_ROW) return true;
    if (code == SQLITE_DONE) {
        reset();
        return false;
    }
    QSError error = errorOf(sqlite3_db_handle(statement_.get()), code);
    reset();
    return std::unexpected(std::move(error));
}

Result<void> SQLiteStatement::run() {
    if (auto done = step(); !done) return std::unexpected(std::move(done.error()));
    reset();
    return {};
}

void SQLiteStatement::reset() {
    sqlite3_reset(statement_.get());
}

std::uint64_t SQLiteStatement::column(int index) const {
    return static_cast<std::uint64_t>(sqlite3_column_int64(statement_.get(), index));
}

std::string_view SQLiteStatement::columnBytes(int index) const {
    const void* bytes = sqlite3_column_blob(statement_.get(), index);
    if (!bytes) return {};
    return {static_cast<const char*>(bytes),
            static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), index))};
}

void SQLiteDatabase::Close::operator()(sqlite3* database) const {
    sqlite3_close(database);
}

Result<SQLiteDatabase> SQLiteDatabase::open(const std::string& path) {
    // SQLite would give a new file the umask's mode, and its companions the mode of the file. A
    // file that exists is left alone: to close a descriptor of it would drop this process's locks.
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd >= 0) ::close(fd);
    if (fd < 0 && errno != EEXIST) return std::unexpected(errorFromErrno(errno, path));
    return open(path, SQLITE_OPEN_READWRITE, nullptr);
}

Result<SQLiteDatabase> SQLiteDatabase::openReadOnly(const std::string& path) {
    struct stat log {};
    if (stat((path + "-wal").c_str(), &log) == 0 && log.st_size > 0) {
        // Its locks would need to write, too.
        return open(path, SQLITE_OPEN_READONLY, "unix-none");
    }
    // SQLite would make a log first, unless the file is said never to change.
    std::string uri = "file:";
    for (const char c : path) {
        if (c == '%' || c == '?' || c == '#') {
            constexpr std::string_view digits = "0123456789ABCDEF";
            uri += {'%', digits[static_cast<unsigned char>(c) >> 4], digits[c & 0x0F]};
        } else {
            uri += c;
        }
    }
    return open(uri + "?immutable=1", SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr);
}

Result<SQLiteDatabase> SQLiteDatabase::open(const std::string& name, int flags,
                                            const char* system) {
    sqlite3* raw = nullptr;
    const int code = sqlite3_open_v2(name.c_str(), &raw, flags | SQLITE_OPEN_NOMUTEX, system);
    SQLiteDatabase database;
    database.database_.reset(raw);
    if (code != SQLITE_OK) return std::unexpected(errorOf(raw, code));
    sqlite3_extended_result_codes(raw, 1);
    sqlite3_db_config(raw, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    // Exclusive before the first access: then the file is locked until it is closed, whatever
    // becomes of others beside it, and SQLite needs no file of shared memory.
    if (auto done = database.execute("PRAGMA locking_mode = EXCLUSIVE"); !done) {
        return std::unexpected(done.error());
    }
    return database;
}

void SQLiteDatabase::setMovesLogAtEnd(bool moves) {
    sqlite3_db_config(database_.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, moves ? 0 : 1, nullptr);
}

Result<void> SQLiteDatabase::execute(const char* sql) {
    const int code = sqlite3_exec(database_.get(), sql, nullptr, nullptr, nullptr);
    if (code != SQLITE_OK) return std::unexpected(errorOf(database_.get(), code));
    return {};
}

Result<SQLiteStatement> SQLiteDatabase::prepare(std::string_view sql) {
    sqlite3_stmt* raw = nullptr;
    const int code = sqlite3_prepare_v3(database_.get(), sql.data(), static_cast<int>(sql.size()),
                                        SQLITE_PREPARE_PERSISTENT, &raw, nullptr);
    SQLiteStatement statement;
    statement.statement_.reset(raw);
    if (code != SQLITE_OK) return std::unexpected(errorOf(database_.get(), code));
    return statement;
}

Result<std::string> SQLiteDatabase::value(std::string_view sql) {
    auto statement = prepare(sql);
    if (!statement) return std::unexpected(std::move(statement.error()));
    const auto row = statement->step();
    if (!row) return std::unexpected(row.error());
    return *row ? std::string(statement->columnBytes(0)) : std::string();
}

SQLiteTransaction::~SQLiteTransaction() {
    // SQLite may have undone it already, for instance on a full disk; then this fails idly.
    if (isOpen_) (void)database_.execute("ROLLBACK");
}

Result<void> SQLiteTransaction::begin() {
    auto begun = database_.execute("BEGIN IMMEDIATE");
    isOpen_ = begun.has_value();
    return begun;
}

Result<void> SQLiteTransaction::commit() {
    auto committed = database_.execute("COMMIT");
    if (committed) isOpen_ = false;
    return committed;
}

}  // namespace platform

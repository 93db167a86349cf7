#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "platform/foundation/QSError.h"

struct sqlite3;
struct sqlite3_stmt;

namespace platform {

/// Whether the error says that a database file is damaged or is none, so that it must be replaced.
[[nodiscard]] bool isDamage(const QSError& error);

/// One prepared statement, used again and again: bind, step until it says false, reset. Belongs to
/// its database and must go first. Parameters count from 1, columns from 0.
class SQLiteStatement {
  public:
    SQLiteStatement() = default;

    /// The value keeps its bit pattern: what is above 2^63 is stored as a negative number.
    void bind(int parameter, std::uint64_t value);
    void bindText(int parameter, std::string_view text);   ///< `text` is copied
    void bindBlob(int parameter, std::string_view bytes);  ///< must live until the next reset

    /// True with a row, false at the end, where the statement is reset by itself.
    [[nodiscard]] Result<bool> step();
    /// Runs a statement that returns no rows.
    Result<void> run();
    void reset();

    [[nodiscard]] std::uint64_t column(int index) const;
    /// Text or blob; valid until the next step or reset.
    [[nodiscard]] std::string_view columnBytes(int index) const;

  private:
    friend class SQLiteDatabase;
    struct Finalize {
        void operator()(sqlite3_stmt* statement) const;
    };
    std::unique_ptr<sqlite3_stmt, Finalize> statement_;
};

/// One connection, which locks the file against every other as long as it lives. Not synchronised:
/// one thread at a time.
/// Errors are of QSPOSIXErrorDomain with SQLite's own text as their description: ENOSPC where the
/// disk is full, EUCLEAN for damage (see isDamage), EBUSY where a stranger locked it, EACCES and
/// EROFS where writing is refused, EIO for the rest.
class SQLiteDatabase {
  public:
    /// Makes the file where it is missing (mode 0600).
    [[nodiscard]] static Result<SQLiteDatabase> open(const std::string& path);
    /// For a file or folder that cannot be written to. Locks nothing and leaves all as it is.
    [[nodiscard]] static Result<SQLiteDatabase> openReadOnly(const std::string& path);

    /// Whether the end moves what is in the write-ahead log to the file and removes the log, as it
    /// does by default.
    void setMovesLogAtEnd(bool moves);

    /// Runs one or several statements, ignoring rows.
    Result<void> execute(const char* sql);
    [[nodiscard]] Result<SQLiteStatement> prepare(std::string_view sql);
    /// The first column of the first row as text, for pragmas.
    [[nodiscard]] Result<std::string> value(std::string_view sql);

  private:
    [[nodiscard]] static Result<SQLiteDatabase> open(const std::string& name, int flags,
                                                     const char* system);

    struct Close {
        void operator()(sqlite3* database) const;
    };
    std::unique_ptr<sqlite3, Close> database_;
};

/// A write transaction: begun by begin, undone by the destructor unless it was committed.
class SQLiteTransaction {
  public:
    explicit SQLiteTransaction(SQLiteDatabase& database) : database_(database) {}
    ~SQLiteTransaction();
    SQLiteTransaction(const SQLiteTransaction&) = delete;
    SQLiteTransaction& operator=(const SQLiteTransaction&) = delete;

    Result<void> begin();
    Result<void> commit();

  private:
    SQLiteDatabase& database_;
    bool isOpen_ = false;
};

}  // namespace platform

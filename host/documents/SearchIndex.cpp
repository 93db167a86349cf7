#include "host/documents/SearchIndex.h"

#include <filesystem>
#include <system_error>
#include <utility>

#include "platform/volume/SQLite.h"

namespace host {

using platform::Result;

namespace {

/// Raised with every change of the layout.
constexpr std::string_view layout = "1";

constexpr const char* schema =
    "CREATE TABLE IF NOT EXISTS state(key TEXT PRIMARY KEY, value BLOB) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS items(number INTEGER PRIMARY KEY, identifier TEXT UNIQUE,"
    " domain TEXT);"
    "CREATE INDEX IF NOT EXISTS domains ON items(domain);"
    "CREATE VIRTUAL TABLE IF NOT EXISTS names USING fts5(name,"
    " tokenize='unicode61 remove_diacritics 2');";

/// An item's domain: its application, none for the user's own documents.
std::string domainOf(const ItemRecord& item) {
    if (item.beaconDomainIdentifier) return *item.beaconDomainIdentifier;
    return item.appContainerBundleIdentifier.value_or("");
}

/// Every word as a quoted prefix, which leaves nothing of the query language to it.
std::string queryFor(std::string_view text) {
    std::string query;
    while (!text.empty()) {
        const auto end = std::min(text.find_first_of(" \t\n"), text.size());
        const auto word = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        if (word.empty()) continue;
        query += query.empty() ? "\"" : " \"";
        for (const char c : word) {
            if (c == '"') query += '"';
            if (c != '\0') query += c;
        }
        query += "\"*";
    }
    return query;
}

}  // namespace

struct SearchIndex::Database {
    platform::SQLiteDatabase database;
    platform::SQLiteStatement findItem;
    platform::SQLiteStatement addItem;
    platform::SQLiteStatement removeItem;
    platform::SQLiteStatement addName;
    platform::SQLiteStatement removeName;
    platform::SQLiteStatement itemsOfDomain;
    platform::SQLiteStatement getState;
    platform::SQLiteStatement setState;
    platform::SQLiteStatement match;

    static Result<std::unique_ptr<Database>> open(const std::string& path);
    /// Begins a new file in the place of a damaged one.
    static Result<std::unique_ptr<Database>> openOrBegin(const std::string& path);
    Result<void> remove(const std::string& identifier);
    Result<void> add(const ItemRecord& item);
    Result<std::string> state(std::string_view key);
    Result<void> setStateTo(std::string_view key, std::string_view value);
    Result<void> clear();
};

Result<std::unique_ptr<SearchIndex::Database>> SearchIndex::Database::open(
    const std::string& path) {
    std::error_code ignored;  // the open fails with the reason
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
    auto opened = platform::SQLiteDatabase::open(path);
    if (!opened) return std::unexpected(std::move(opened.error()));
    auto result = std::make_unique<Database>();
    auto& database = result->database = std::move(*opened);
    if (auto done = database.value("PRAGMA journal_mode=WAL"); !done) {
        return std::unexpected(std::move(done.error()));
    }
    if (auto done = database.execute(schema); !done)
        return std::unexpected(std::move(done.error()));
    const std::pair<platform::SQLiteStatement*, std::string_view> statements[]{
        {&result->findItem, "SELECT number FROM items WHERE identifier = ?1"},
        {&result->addItem, "INSERT INTO items(identifier, domain) VALUES(?1, ?2) RETURNING number"},
        {&result->removeItem, "DELETE FROM items WHERE number = ?1"},
        {&result->addName, "INSERT INTO names(rowid, name) VALUES(?1, ?2)"},
        {&result->removeName, "DELETE FROM names WHERE rowid = ?1"},
        {&result->itemsOfDomain, "SELECT identifier FROM items WHERE domain = ?1"},
        {&result->getState, "SELECT value FROM state WHERE key = ?1"},
        {&result->setState, "INSERT OR REPLACE INTO state(key, value) VALUES(?1, ?2)"},
        {&result->match,
         "SELECT identifier FROM names JOIN items ON number = names.rowid"
         " WHERE names MATCH ?1 ORDER BY rank, name"}};
    for (const auto& [statement, sql] : statements) {
        auto prepared = database.prepare(sql);
        if (!prepared) return std::unexpected(std::move(prepared.error()));
        *statement = std::move(*prepared);
    }
    const auto found = result->state("layout");
    if (!found) return std::unexpected(found.error());
    if (*found == layout) return result;
    if (auto done = result->clear(); !done) return std::unexpected(std::move(done.error()));
    return result;
}

Result<std::unique_ptr<SearchIndex::Database>> SearchIndex::Database::openOrBegin(
    const std::string& path) {
    auto opened = open(path);
    if (opened || !platform::isDamage(opened.error())) return opened;
    std::error_code ignored;
    for (const char* part : {"", "-wal", "-shm"}) std::filesystem::remove(path + part, ignored);
    return open(path);
}

Result<std::string> SearchIndex::Database::state(std::string_view key) {
    getState.bindText(1, key);
    const auto row = getState.step();
    if (!row) return std::unexpected(row.error());
    std::string value(*row ? getState.columnBytes(0) : std::string_view());
    getState.reset();
    return value;
}

Result<void> SearchIndex::Database::setStateTo(std::string_view key, std::string_view value) {
    setState.bindText(1, key);
    setState.bindBlob(2, value);
    return setState.run();
}

Result<void> SearchIndex::Database::clear() {
    const auto done = database.execute("DELETE FROM names; DELETE FROM items; DELETE FROM state;");
    return done ? setStateTo("layout", layout) : done;
}

Result<void> SearchIndex::Database::remove(const std::string& identifier) {
    findItem.bindText(1, identifier);
    const auto row = findItem.step();
    if (!row) return std::unexpected(row.error());
    if (!*row) return {};
    const auto number = findItem.column(0);
    findItem.reset();
    for (auto* statement : {&removeName, &removeItem}) {
        statement->bind(1, number);
        if (auto done = statement->run(); !done) return done;
    }
    return {};
}

Result<void> SearchIndex::Database::add(const ItemRecord& item) {
    if (auto done = remove(item.itemIdentifier); !done) return done;
    // A trashed item is reported as a deletion, so listing it must not bring it back.
    if (item.isTrashed) return {};
    addItem.bindText(1, item.itemIdentifier);
    addItem.bindText(2, domainOf(item));
    const auto row = addItem.step();
    if (!row) return std::unexpected(row.error());
    const auto number = addItem.column(0);
    addItem.reset();
    addName.bind(1, number);
    addName.bindText(2, item.filename);
    return addName.run();
}

SearchIndex::SearchIndex(std::string path) : path_(std::move(path)) {}

SearchIndex::~SearchIndex() = default;

Result<SearchIndex::Database*> SearchIndex::open() {
    if (!database_) {
        auto opened = Database::openOrBegin(path_);
        if (!opened) return std::unexpected(std::move(opened.error()));
        database_ = std::move(*opened);
    }
    return database_.get();
}

/// One transaction. After a failure the file is opened anew, and begun anew where it is damaged.
template <typename Work>
auto SearchIndex::use(Work&& work) -> decltype(work(std::declval<Database&>())) {
    const std::scoped_lock lock(mutex_);
    const auto opened = open();
    if (!opened) return std::unexpected(opened.error());
    auto result = [&]() -> decltype(work(**opened)) {
        platform::SQLiteTransaction transaction((*opened)->database);
        if (auto begun = transaction.begin(); !begun) return std::unexpected(begun.error());
        auto done = work(**opened);
        if (!done) return done;
        if (auto committed = transaction.commit(); !committed) {
            return std::unexpected(committed.error());
        }
        return done;
    }();
    if (!result) database_.reset();
    return result;
}

Result<std::optional<Anchor>> SearchIndex::anchor() {
    return use([](Database& database) -> Result<std::optional<Anchor>> {
        const auto bytes = database.state("anchor");
        if (!bytes) return std::unexpected(bytes.error());
        if (bytes->empty()) return std::nullopt;
        return platform::dataFromString(*bytes);
    });
}

Result<void> SearchIndex::clear() {
    return use([](Database& database) { return database.clear(); });
}

Result<void> SearchIndex::apply(const std::vector<ItemRecord>& updates,
                                const std::vector<std::string>& deletions,
                                const std::optional<Anchor>& anchor) {
    return use([&](Database& database) -> Result<void> {
        for (const auto& item : updates) {
            if (auto done = database.add(item); !done) return done;
        }
        for (const auto& identifier : deletions) {
            if (auto done = database.remove(identifier); !done) return done;
        }
        if (!anchor) return {};
        return database.setStateTo("anchor", platform::stringFromData(*anchor));
    });
}

Result<std::uint64_t> SearchIndex::removeDomains(const std::vector<std::string>& domains) {
    return use([&](Database& database) -> Result<std::uint64_t> {
        std::vector<std::string> identifiers;
        for (const auto& domain : domains) {
            if (domain.empty()) continue;
            database.itemsOfDomain.bindText(1, domain);
            for (;;) {
                const auto row = database.itemsOfDomain.step();
                if (!row) return std::unexpected(row.error());
                if (!*row) break;
                identifiers.emplace_back(database.itemsOfDomain.columnBytes(0));
            }
        }
        for (const auto& identifier : identifiers) {
            if (auto done = database.remove(identifier); !done) {
                return std::unexpected(std::move(done.error()));
            }
        }
        return identifiers.size();
    });
}

Result<std::vector<std::string>> SearchIndex::find(std::string_view text) {
    const auto query = queryFor(text);
    if (query.empty()) return std::vector<std::string>{};
    return use([&](Database& database) -> Result<std::vector<std::string>> {
        std::vector<std::string> identifiers;
        database.match.bindText(1, query);
        for (;;) {
            const auto row = database.match.step();
            if (!row) return std::unexpected(row.error());
            if (!*row) return identifiers;
            identifiers.emplace_back(database.match.columnBytes(0));
        }
    });
}

}  // namespace host

#include "platform/volume/EventTable.h"

#include <cerrno>

#include "platform/volume/RowSum.h"

namespace platform {

namespace {

std::uint64_t sumOf(const EventRecord& record) {
    const auto& event = record.event;
    return RowSum()
        .add(event.id)
        .add(event.flags)
        .add(event.fileID)
        .add(event.documentID)
        .add(static_cast<std::uint64_t>(event.identifierKind))
        .add(record.folder)
        .add(record.folderGeneration)
        .add(event.path)
        .value();
}

Result<void> prepareInto(SQLiteStatement& statement, SQLiteDatabase& database,
                         std::string_view sql) {
    auto prepared = database.prepare(sql);
    if (!prepared) return std::unexpected(prepared.error());
    statement = std::move(*prepared);
    return {};
}

/// Events that are asked for without reading the others. The index of them is almost empty, and
/// costs nothing where other events are appended.
struct Selected {
    const char* index;
    const char* condition;
};
constexpr Selected documentIDs = {"document_ids", "flags & 4103 <> 0"};
static_assert((fsEventDocumentIDChanged | fsEventMustScanSubDirs | fsEventUserDropped |
               fsEventKernelDropped) == 4103);
/// A root's end names no object, as its identifier is its path's.
constexpr Selected detachedRoots = {"roots_let_go",
                                    "flags & 512 <> 0 AND file_id = 0 AND document_id = 0"};
static_assert(fsEventRemoved == 512);

constexpr const char* columns =
    "SELECT id, flags, file_id, document_id, kind, folder, folder_generation, time, path, sum "
    "FROM events ";
constexpr const char* range = "id > ? AND id <= ? ORDER BY id LIMIT ?";

Result<void> prepareSelected(SQLiteStatement& statement, SQLiteDatabase& database,
                             const Selected& selected) {
    const auto condition = std::string(selected.condition);
    const auto index = std::string(selected.index);
    const auto make = "CREATE INDEX IF NOT EXISTS " + index + " ON events(id) WHERE " + condition;
    if (auto made = database.execute(make.c_str()); !made) return made;
    return prepareInto(statement, database,
                       columns + ("INDEXED BY " + index) + " WHERE " + condition + " AND " + range);
}

/// The first column of the first row, 0 where there is none.
Result<std::uint64_t> firstValue(SQLiteStatement& statement) {
    const auto more = statement.step();
    if (!more) return std::unexpected(more.error());
    if (!*more) return 0;
    const auto value = statement.column(0);
    statement.reset();
    return value;
}

}  // namespace

Result<void> EventTable::prepare(SQLiteDatabase& database) {
    if (auto done = prepareSelected(readDocumentIDs_, database, documentIDs); !done) return done;
    if (auto done = prepareSelected(readDetachedRoots_, database, detachedRoots); !done)
        return done;
    const std::pair<SQLiteStatement*, std::string> statements[] = {
        {&append_, "INSERT INTO events VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"},
        {&read_, std::string(columns) + "WHERE " + range},
        {&nth_, "SELECT id FROM events ORDER BY id LIMIT 1 OFFSET ?"},
        {&old_, "SELECT id FROM events WHERE time >= ? ORDER BY id LIMIT 1"},
        {&drop_, "DELETE FROM events WHERE id <= ?"},
        {&last_, "SELECT max(id) FROM events"},
        {&known_, "SELECT count(*) FROM events WHERE id = ?"},
        {&countAll_, "SELECT count(*) FROM events"}};
    for (const auto& [statement, sql] : statements) {
        if (auto done = prepareInto(*statement, database, sql); !done) return done;
    }
    return recount();
}

void EventTable::close() {
    for (auto* statement : {&append_, &read_, &readDocumentIDs_, &readDetachedRoots_, &nth_, &old_,
                            &drop_, &last_, &known_, &countAll_}) {
        *statement = {};
    }
}

Result<void> EventTable::append(std::span<const EventRecord> events) {
    for (const auto& record : events) {
        const auto& event = record.event;
        append_.bind(1, event.id);
        append_.bind(2, event.flags);
        append_.bind(3, event.fileID);
        append_.bind(4, event.documentID);
        append_.bind(5, static_cast<std::uint64_t>(event.identifierKind));
        append_.bind(6, record.folder);
        append_.bind(7, record.folderGeneration);
        append_.bind(8, static_cast<std::uint64_t>(record.time));
        append_.bindBlob(9, event.path);
        append_.bind(10, sumOf(record));
        if (auto done = append_.run(); !done) return done;
    }
    return {};
}

Result<std::vector<EventRecord>> EventTable::read(std::uint64_t after, std::uint64_t upTo,
                                                  std::size_t limit, EventSelection selection) {
    if (after >= upTo) return std::vector<EventRecord>();  // without asking
    auto& rows = selection == EventSelection::All           ? read_
                 : selection == EventSelection::DocumentIDs ? readDocumentIDs_
                                                            : readDetachedRoots_;
    rows.bind(1, after);
    rows.bind(2, upTo);
    rows.bind(3, limit);
    std::vector<EventRecord> records;
    for (;;) {
        const auto more = rows.step();
        if (!more) return std::unexpected(more.error());
        if (!*more) return records;
        EventRecord& record = records.emplace_back();
        record.event.id = rows.column(0);
        record.event.flags = static_cast<FSEventFlags>(rows.column(1));
        record.event.fileID = rows.column(2);
        record.event.documentID = static_cast<std::uint32_t>(rows.column(3));
        record.event.identifierKind =
            rows.column(4) == 0 ? IdentifierKind::File : IdentifierKind::Document;
        record.folder = rows.column(5);
        record.folderGeneration = rows.column(6);
        record.time = static_cast<std::int64_t>(rows.column(7));
        record.event.path = rows.columnBytes(8);
        if (rows.column(9) != sumOf(record)) {
            rows.reset();
            return std::unexpected(errorFromErrno(EUCLEAN));
        }
    }
}

Result<std::uint64_t> EventTable::lastID() {
    return firstValue(last_);
}

Result<bool> EventTable::has(std::uint64_t id) {
    known_.bind(1, id);
    const auto count = firstValue(known_);
    if (!count) return std::unexpected(count.error());
    return *count != 0;
}

Result<std::uint64_t> EventTable::lastToDrop(const Retention& retention) {
    std::uint64_t last = 0;
    if (count_ > retention.count + retention.count / 10) {
        nth_.bind(1, count_ - retention.count - 1);
        const auto nth = firstValue(nth_);
        if (!nth) return nth;
        last = *nth;
    }
    if (!retention.tooOld || !retention.old) return last;
    const auto first = read(0, ~std::uint64_t{0} >> 1, 1);
    if (!first) return std::unexpected(first.error());
    if (first->empty() || first->front().time >= *retention.tooOld) return last;
    old_.bind(1, static_cast<std::uint64_t>(*retention.old));
    const auto old = firstValue(old_);
    if (!old) return old;
    return std::max(last, *old == 0 ? 0 : *old - 1);
}

Result<void> EventTable::drop(std::uint64_t upTo) {
    drop_.bind(1, upTo);
    return drop_.run();
}

Result<void> EventTable::recount() {
    const auto count = firstValue(countAll_);
    if (!count) return std::unexpected(count.error());
    count_ = *count;
    return {};
}

}  // namespace platform

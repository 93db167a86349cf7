#include "platform/volume/TrashTable.h"

#include "platform/volume/RowSum.h"

namespace platform {

namespace {

std::uint64_t sumOf(const TrashRow& row) {
    return RowSum()
        .add(row.path)
        .add(row.object.inode)
        .add(row.object.generation)
        .add(static_cast<std::uint64_t>(row.record->date.seconds))
        .add(row.record->date.nanoseconds)
        .add(row.record->formerPath)
        .value();
}

void bindKey(SQLiteStatement& statement, const TrashRow& row) {
    statement.bindBlob(1, row.path);
    statement.bind(2, row.object.inode);
    statement.bind(3, row.object.generation);
}

}  // namespace

Result<void> TrashTable::prepare(SQLiteDatabase& database) {
    auto insert = database.prepare("INSERT OR REPLACE INTO trash VALUES(?, ?, ?, ?, ?, ?, ?)");
    if (!insert) return std::unexpected(insert.error());
    auto drop = database.prepare("DELETE FROM trash WHERE path = ? AND ino = ? AND generation = ?");
    if (!drop) return std::unexpected(drop.error());
    insert_ = std::move(*insert);
    drop_ = std::move(*drop);
    return {};
}

void TrashTable::close() {
    insert_ = {};
    drop_ = {};
}

Result<std::vector<TrashRow>> TrashTable::load(SQLiteDatabase& database) const {
    auto select = database.prepare(
        "SELECT path, ino, generation, seconds, nanoseconds, former, sum FROM trash");
    if (!select) return std::unexpected(select.error());
    std::vector<TrashRow> rows;
    for (;;) {
        const auto more = select->step();
        if (!more) return std::unexpected(more.error());
        if (!*more) return rows;
        TrashRow row{std::string(select->columnBytes(0)),
                     {select->column(1), select->column(2)},
                     TrashRecord{{static_cast<std::int64_t>(select->column(3)),
                                  static_cast<std::uint32_t>(select->column(4))},
                                 std::string(select->columnBytes(5))}};
        if (select->column(6) == sumOf(row)) rows.push_back(std::move(row));
    }
}

Result<void> TrashTable::write(std::span<const TrashRow> rows) {
    for (const auto& row : rows) {
        auto& statement = row.record ? insert_ : drop_;
        bindKey(statement, row);
        if (row.record) {
            statement.bind(4, static_cast<std::uint64_t>(row.record->date.seconds));
            statement.bind(5, row.record->date.nanoseconds);
            statement.bindBlob(6, row.record->formerPath);
            statement.bind(7, sumOf(row));
        }
        if (auto done = statement.run(); !done) return done;
    }
    return {};
}

}  // namespace platform

#include "platform/volume/UnownedTable.h"

#include <cerrno>

#include "platform/volume/RowSum.h"

namespace platform {

namespace {

std::uint64_t sumOf(const UnownedRow& row) {
    return RowSum()
        .add(row.documentID)
        .add(row.inode)
        .add(row.fileID)
        .add(static_cast<std::uint64_t>(row.kind))
        .add(row.folder)
        .add(row.path)
        .add(row.vacatedFolder)
        .add(row.vacatedName)
        .value();
}

}  // namespace

Result<void> UnownedTable::prepare(SQLiteDatabase& database) {
    auto insert =
        database.prepare("INSERT OR REPLACE INTO orphans VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?)");
    if (!insert) return std::unexpected(insert.error());
    auto drop = database.prepare("DELETE FROM orphans WHERE document_id = ?");
    if (!drop) return std::unexpected(drop.error());
    insert_ = std::move(*insert);
    drop_ = std::move(*drop);
    return {};
}

void UnownedTable::close() {
    insert_ = {};
    drop_ = {};
}

Result<std::vector<UnownedRow>> UnownedTable::load(SQLiteDatabase& database) const {
    auto select = database.prepare(
        "SELECT document_id, ino, file_id, kind, folder, path, vacant_folder, vacant_name, sum "
        "FROM orphans");
    if (!select) return std::unexpected(select.error());
    std::vector<UnownedRow> rows;
    for (;;) {
        const auto more = select->step();
        if (!more) return std::unexpected(more.error());
        if (!*more) return rows;
        UnownedRow& row = rows.emplace_back();
        row.documentID = static_cast<std::uint32_t>(select->column(0));
        row.inode = select->column(1);
        row.fileID = select->column(2);
        row.kind = static_cast<ObjectKind>(select->column(3));
        row.folder = select->column(4);
        row.path = select->columnBytes(5);
        row.vacatedFolder = select->column(6);
        row.vacatedName = select->columnBytes(7);
        if (select->column(8) != sumOf(row) || select->column(0) != row.documentID) {
            return std::unexpected(errorFromErrno(EUCLEAN));
        }
    }
}

Result<void> UnownedTable::write(std::span<const UnownedChange> changes) {
    for (const auto& change : changes) {
        if (!change.row) {
            drop_.bind(1, change.documentID);
            if (auto done = drop_.run(); !done) return done;
            continue;
        }
        const auto& row = *change.row;
        insert_.bind(1, row.documentID);
        insert_.bind(2, row.inode);
        insert_.bind(3, row.fileID);
        insert_.bind(4, static_cast<std::uint64_t>(row.kind));
        insert_.bind(5, row.folder);
        insert_.bindBlob(6, row.path);
        insert_.bind(7, row.vacatedFolder);
        insert_.bindBlob(8, row.vacatedName);
        insert_.bind(9, sumOf(row));
        if (auto done = insert_.run(); !done) return done;
    }
    return {};
}

}  // namespace platform

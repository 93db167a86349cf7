#include "platform/volume/ObjectTable.h"

#include <cerrno>
#include <set>

#include "platform/volume/RowSum.h"

namespace platform {

namespace {

std::uint64_t sumOf(const ObjectRow& row) {
    // Where it lies and its state are compared with the disk before they are used.
    return RowSum()
        .add(row.inode)
        .add(row.generation)
        .add(row.fileID)
        .add(row.documentID)
        .add(row.metadata)
        .value();
}

/// Numbers on several rows mean none of their objects.
class RepeatedNumbers {
  public:
    explicit RepeatedNumbers(ObjectIndex& index) : index_(index) {}

    void removeFrom(ObjectRow& row) {
        if (remove(row, index_.findDocumentID(row.documentID), row.documentID, documents_)) {
            row.documentID = 0;
        }
        if (row.fileID < firstFreshFileID) return;
        if (remove(row, index_.findFileID(row.fileID), row.fileID, files_)) row.fileID = 0;
    }
    /// Once all rows are loaded: whether there were any, and then the rows differ from the store.
    [[nodiscard]] bool finish() {
        for (const auto inode : affected_) {
            const auto node = index_.findInode(inode);
            auto row = index_.row(node);
            if (documents_.contains(row.documentID)) row.documentID = 0;
            if (files_.contains(row.fileID)) row.fileID = 0;
            index_.setIdentity(node, row);
            index_.markDirty(node);
        }
        return !affected_.empty();
    }

  private:
    bool remove(const ObjectRow& row, ObjectIndex::NodeNumber other, std::uint64_t number,
                std::set<std::uint64_t>& numbers) {
        if (other == ObjectIndex::none) return false;
        numbers.insert(number);
        affected_.insert({index_.node(other).inode, row.inode});
        return true;
    }

    ObjectIndex& index_;
    std::set<std::uint64_t> documents_;
    std::set<std::uint64_t> files_;
    std::set<std::uint64_t> affected_;  ///< inodes
};

}  // namespace

Result<void> ObjectTable::prepare(SQLiteDatabase& database) {
    const std::pair<SQLiteStatement*, const char*> statements[] = {
        {&insertRow_, "INSERT OR REPLACE INTO objects VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"},
        {&insertName_, "INSERT OR REPLACE INTO names VALUES(?, ?, ?)"},
        {&dropNames_, "DELETE FROM names WHERE ino = ?"}};
    for (const auto& [statement, sql] : statements) {
        auto prepared = database.prepare(sql);
        if (!prepared) return std::unexpected(prepared.error());
        *statement = std::move(*prepared);
    }
    return {};
}

void ObjectTable::close() {
    for (auto* statement : {&insertRow_, &insertName_, &dropNames_}) *statement = {};
}

Result<bool> ObjectTable::load(SQLiteDatabase& database, ObjectIndex& index,
                               HighWaterMarks& highest) const {
    RepeatedNumbers repeated(index);
    auto objects = database.prepare(
        "SELECT ino, generation, file_id, document_id, parent, name, kind, stamp, metadata, sum "
        "FROM objects");
    if (!objects) return std::unexpected(objects.error());
    for (;;) {
        const auto more = objects->step();
        if (!more) return std::unexpected(more.error());
        if (!*more) break;
        ObjectRow row;
        row.inode = objects->column(0);
        row.generation = objects->column(1);
        row.fileID = objects->column(2);
        row.documentID = static_cast<std::uint32_t>(objects->column(3));
        if (std::string name(objects->columnBytes(5)); !name.empty()) {
            row.names.push_back({objects->column(4), std::move(name)});
        }
        row.kind = static_cast<ObjectKind>(objects->column(6));
        row.stamp = objects->column(7);
        row.metadata = objects->columnBytes(8);
        if (objects->column(9) != sumOf(row) || objects->column(3) != row.documentID) {
            return std::unexpected(errorFromErrno(EUCLEAN));
        }
        highest.raise(Counter::File, row.fileID);
        highest.raise(Counter::Document, row.documentID);
        repeated.removeFrom(row);
        index.load(row);
    }
    auto names = database.prepare("SELECT ino, parent, name FROM names");
    if (!names) return std::unexpected(names.error());
    for (;;) {
        const auto more = names->step();
        if (!more) return std::unexpected(more.error());
        if (!*more) break;
        index.loadFurtherName(names->column(0),
                              {names->column(1), std::string(names->columnBytes(2))});
    }
    return repeated.finish();
}

Result<void> ObjectTable::write(std::span<const ObjectRow> rows) {
    for (const auto& row : rows) {
        insertRow_.bind(1, row.inode);
        insertRow_.bind(2, row.generation);
        insertRow_.bind(3, row.fileID);
        insertRow_.bind(4, row.documentID);
        insertRow_.bind(5, row.names.empty() ? 0 : row.names.front().folder);
        insertRow_.bindBlob(6, row.names.empty() ? std::string_view() : row.names.front().name);
        insertRow_.bind(7, static_cast<std::uint64_t>(row.kind));
        insertRow_.bind(8, row.stamp);
        insertRow_.bindBlob(9, row.metadata);
        insertRow_.bind(10, sumOf(row));
        if (auto done = insertRow_.run(); !done) return done;
        if (auto done = writeNames(row); !done) return done;
    }
    return {};
}

Result<void> ObjectTable::writeNames(const ObjectRow& row) {
    if (row.hadMoreNames) {
        dropNames_.bind(1, row.inode);
        if (auto done = dropNames_.run(); !done) return done;
    }
    for (std::size_t i = 1; i < row.names.size(); ++i) {
        insertName_.bind(1, row.inode);
        insertName_.bind(2, row.names[i].folder);
        insertName_.bindBlob(3, row.names[i].name);
        if (auto done = insertName_.run(); !done) return done;
    }
    if (row.rootPath.empty()) return {};
    insertName_.bind(1, row.inode);
    insertName_.bind(2, 0);
    insertName_.bindBlob(3, row.rootPath);
    return insertName_.run();
}

}  // namespace platform

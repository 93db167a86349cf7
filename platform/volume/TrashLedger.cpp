#include "platform/volume/TrashLedger.h"

#include <utility>

#include "platform/tree/TreeLayout.h"

namespace platform {

namespace {

auto keyOf(std::string_view path, const ObjectIdentity& object) {
    return std::tuple(std::string(path), object.inode, object.generation);
}

}  // namespace

std::optional<TrashRecord> TrashLedger::find(std::string_view path,
                                             const ObjectIdentity& object) const {
    const std::scoped_lock lock(mutex_);
    const auto found = records_.find(keyOf(path, object));
    return found == records_.end() ? std::nullopt : std::optional(found->second);
}

void TrashLedger::put(const std::string& path, const ObjectIdentity& object, TrashRecord record) {
    const std::scoped_lock lock(mutex_);
    auto key = keyOf(path, object);
    records_.insert_or_assign(key, std::move(record));
    changed_.insert(std::move(key));
}

void TrashLedger::remove(const std::string& path, const ObjectIdentity& object) {
    const std::scoped_lock lock(mutex_);
    if (records_.empty()) return;
    auto key = keyOf(path, object);
    if (records_.erase(key) != 0) changed_.insert(std::move(key));
}

void TrashLedger::removeWithEntries(const std::string& path, const ObjectIdentity& object) {
    remove(path, object);
    if (!path.ends_with("/" + std::string(trashName))) return;
    const std::scoped_lock lock(mutex_);
    const auto prefix = path + "/";
    auto at = records_.lower_bound(Key(prefix, 0, 0));
    while (at != records_.end() && std::get<0>(at->first).starts_with(prefix)) {
        changed_.insert(at->first);
        at = records_.erase(at);
    }
}

std::vector<TrashRow> TrashLedger::popInterrupted() {
    const std::scoped_lock lock(mutex_);
    return std::exchange(interrupted_, {});
}

void TrashLedger::load(std::vector<TrashRow> rows) {
    const std::scoped_lock lock(mutex_);
    for (auto& row : rows) {
        if (!row.record) continue;
        records_.insert_or_assign(keyOf(row.path, row.object), *row.record);
        if (row.path.ends_with("/" + std::string(trashName))) {
            interrupted_.push_back(std::move(row));
        }
    }
}

std::vector<TrashRow> TrashLedger::popChanges() {
    const std::scoped_lock lock(mutex_);
    std::vector<TrashRow> rows;
    for (const auto& key : std::exchange(changed_, {})) {
        const auto& [path, inode, generation] = key;
        auto& row = rows.emplace_back(TrashRow{path, {inode, generation}, {}});
        const auto found = records_.find(key);
        if (found != records_.end()) row.record = found->second;
    }
    return rows;
}

void TrashLedger::markChanged(std::span<const TrashRow> rows) {
    const std::scoped_lock lock(mutex_);
    for (const auto& row : rows) changed_.insert(keyOf(row.path, row.object));
}

}  // namespace platform

#include "host/wire/RemoteMutations.h"

#include "host/wire/asking.h"

namespace host {

using platform::Result;

Result<ItemRecord> RemoteMutations::makeDirectory(std::string_view name,
                                                  const std::string& parent) const {
    return operate<ItemRecord>(client_, "MakeDirectory", {}, std::string(name), parent);
}

Result<ItemRecord> RemoteMutations::import(std::string_view path, const std::string& parent,
                                           const ProgressHandler& progress) const {
    return operate<ItemRecord>(client_, "Import", progress, std::string(path), parent);
}

Result<ItemRecord> RemoteMutations::rename(const ItemTarget& target, std::string_view name) const {
    return operate<ItemRecord>(client_, "Rename", {}, target, std::string(name));
}

Result<ItemRecord> RemoteMutations::move(const ItemTarget& target, const std::string& parent,
                                         const std::optional<std::string>& name,
                                         const ProgressHandler& progress) const {
    return operate<ItemRecord>(client_, "Move", progress, target, parent, name);
}

Result<ItemRecord> RemoteMutations::trash(const ItemTarget& target,
                                          const ProgressHandler& progress) const {
    return operate<ItemRecord>(client_, "Trash", progress, target);
}

Result<ItemRecord> RemoteMutations::untrash(const ItemTarget& target,
                                            const std::optional<std::string>& parent,
                                            const ProgressHandler& progress) const {
    return operate<ItemRecord>(client_, "Untrash", progress, target, parent);
}

Result<void> RemoteMutations::remove(const ItemTarget& target,
                                     const ProgressHandler& progress) const {
    return succeeded(operate<Nothing>(client_, "Remove", progress, target));
}

Result<void> RemoteMutations::emptyTrash(const platform::QSDate& date) const {
    return succeeded(operate<Nothing>(client_, "EmptyTrash", {}, date));
}

Result<void> RemoteMutations::dateArrivalsInTrash() const {
    return succeeded(operate<Nothing>(client_, "DateArrivalsInTrash", {}));
}

Result<std::vector<ItemRecord>> RemoteMutations::trashedBefore(const platform::QSDate& date) const {
    return ask<std::vector<ItemRecord>>(client_, "TrashedBefore", date);
}

}  // namespace host

#include "host/service/SupervisedMutations.h"

#include "host/service/asking.h"

namespace host {

using platform::Result;

Result<ItemRecord> SupervisedMutations::makeDirectory(std::string_view name,
                                                      const std::string& parent) const {
    return askSupervised(supervisor_, [&](auto& session) {
        return session.mutations().makeDirectory(name, parent);
    });
}

Result<ItemRecord> SupervisedMutations::import(std::string_view path, const std::string& parent,
                                               const ProgressHandler& progress) const {
    return askSupervised(supervisor_, [&](auto& session) {
        return session.mutations().import(path, parent, progress);
    });
}

Result<ItemRecord> SupervisedMutations::rename(const ItemTarget& target,
                                               std::string_view name) const {
    return askSupervised(supervisor_,
                         [&](auto& session) { return session.mutations().rename(target, name); });
}

Result<ItemRecord> SupervisedMutations::move(const ItemTarget& target, const std::string& parent,
                                             const std::optional<std::string>& name,
                                             const ProgressHandler& progress) const {
    return askSupervised(supervisor_, [&](auto& session) {
        return session.mutations().move(target, parent, name, progress);
    });
}

Result<ItemRecord> SupervisedMutations::trash(const ItemTarget& target,
                                              const ProgressHandler& progress) const {
    return askSupervised(
        supervisor_, [&](auto& session) { return session.mutations().trash(target, progress); });
}

Result<ItemRecord> SupervisedMutations::untrash(const ItemTarget& target,
                                                const std::optional<std::string>& parent,
                                                const ProgressHandler& progress) const {
    return askSupervised(supervisor_, [&](auto& session) {
        return session.mutations().untrash(target, parent, progress);
    });
}

Result<void> SupervisedMutations::remove(const ItemTarget& target,
                                         const ProgressHandler& progress) const {
    return askSupervised(
        supervisor_, [&](auto& session) { return session.mutations().remove(target, progress); });
}

Result<void> SupervisedMutations::emptyTrash(const platform::QSDate& date) const {
    return askSupervised(supervisor_,
                         [&](auto& session) { return session.mutations().emptyTrash(date); });
}

Result<void> SupervisedMutations::dateArrivalsInTrash() const {
    return askSupervised(supervisor_,
                         [](auto& session) { return session.mutations().dateArrivalsInTrash(); });
}

Result<std::vector<ItemRecord>> SupervisedMutations::trashedBefore(
    const platform::QSDate& date) const {
    return askSupervised(supervisor_,
                         [&](auto& session) { return session.mutations().trashedBefore(date); });
}

}  // namespace host

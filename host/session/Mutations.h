#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/session/ItemRecord.h"
#include "host/session/ItemTarget.h"
#include "platform/foundation/QSDate.h"
#include "platform/foundation/QSError.h"

namespace host {

/// The operations that change documents: each waits for the extension and returns the item as it is
/// then. One on an item with several names acts on the target's entry; without an entry it fails
/// with EMLINK where it could act on more than one of them. Any thread, several calls at once;
/// paths in errors are native.
class Mutations {
  public:
    /// How far a long operation is.
    struct Progress {
        std::uint64_t items = 0;
        std::uint64_t bytes = 0;

        friend bool operator==(const Progress&, const Progress&) = default;
    };
    /// Called now and then on the waiting thread; false cancels the operation, which then fails
    /// with ECANCELED unless it is past that.
    using ProgressHandler = std::function<bool(const Progress&)>;

    virtual ~Mutations() = default;

    [[nodiscard]] virtual platform::Result<ItemRecord> makeDirectory(
        std::string_view name, const std::string& parent) const = 0;
    /// `path` is native and absolute.
    [[nodiscard]] virtual platform::Result<ItemRecord> import(
        std::string_view path, const std::string& parent,
        const ProgressHandler& progress) const = 0;
    [[nodiscard]] virtual platform::Result<ItemRecord> rename(const ItemTarget& target,
                                                              std::string_view name) const = 0;
    [[nodiscard]] virtual platform::Result<ItemRecord> move(
        const ItemTarget& target, const std::string& parent, const std::optional<std::string>& name,
        const ProgressHandler& progress) const = 0;
    [[nodiscard]] virtual platform::Result<ItemRecord> trash(
        const ItemTarget& target, const ProgressHandler& progress) const = 0;
    /// Without a parent, to where it was.
    [[nodiscard]] virtual platform::Result<ItemRecord> untrash(
        const ItemTarget& target, const std::optional<std::string>& parent,
        const ProgressHandler& progress) const = 0;
    [[nodiscard]] virtual platform::Result<void> remove(const ItemTarget& target,
                                                        const ProgressHandler& progress) const = 0;

    /// Deletes what was trashed before the date; returns when that is done.
    [[nodiscard]] virtual platform::Result<void> emptyTrash(const platform::QSDate& date) const = 0;
    /// Gives what came into the trash in another way than by trash() its date, once.
    [[nodiscard]] virtual platform::Result<void> dateArrivalsInTrash() const = 0;
    /// What emptyTrash() would delete.
    [[nodiscard]] virtual platform::Result<std::vector<ItemRecord>> trashedBefore(
        const platform::QSDate& date) const = 0;
};

}  // namespace host

#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/EntryChoice.h"
#include "host/ItemRecord.h"
#include "host/ItemTarget.h"
#include "platform/foundation/QSDate.h"
#include "platform/foundation/QSError.h"

namespace platform {
class QSProgress;
}

namespace host {

class ExtensionSession;
struct VolumeAccess;

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
    };
    /// Called now and then on the waiting thread; false cancels the operation, which then fails
    /// with ECANCELED unless it is past that.
    using ProgressHandler = std::function<bool(const Progress&)>;

    /// `session` may be empty until the first call. An operation that gets no further for the time
    /// of `stallDeadline` is given up with ETIMEDOUT; what it does goes on.
    Mutations(const std::unique_ptr<ExtensionSession>& session, const VolumeAccess& volume,
              std::chrono::milliseconds stallDeadline)
        : session_(session), volume_(volume), stallDeadline_(stallDeadline) {}

    [[nodiscard]] platform::Result<ItemRecord> makeDirectory(std::string_view name,
                                                             const std::string& parent) const;
    /// `path` is native and absolute.
    [[nodiscard]] platform::Result<ItemRecord> import(std::string_view path,
                                                      const std::string& parent,
                                                      const ProgressHandler& progress) const;
    [[nodiscard]] platform::Result<ItemRecord> rename(const ItemTarget& target,
                                                      std::string_view name) const;
    [[nodiscard]] platform::Result<ItemRecord> move(const ItemTarget& target,
                                                    const std::string& parent,
                                                    const std::optional<std::string>& name,
                                                    const ProgressHandler& progress) const;
    [[nodiscard]] platform::Result<ItemRecord> trash(const ItemTarget& target,
                                                     const ProgressHandler& progress) const;
    /// Without a parent, to where it was.
    [[nodiscard]] platform::Result<ItemRecord> untrash(const ItemTarget& target,
                                                       const std::optional<std::string>& parent,
                                                       const ProgressHandler& progress) const;
    [[nodiscard]] platform::Result<void> remove(const ItemTarget& target,
                                                const ProgressHandler& progress) const;

    /// Deletes what was trashed before the date; returns when that is done.
    [[nodiscard]] platform::Result<void> emptyTrash(const platform::QSDate& date) const;
    /// Gives what came into the trash in another way than by trash() its date, once.
    [[nodiscard]] platform::Result<void> dateArrivalsInTrash() const;
    /// What emptyTrash() would delete.
    [[nodiscard]] std::vector<ItemRecord> trashedBefore(const platform::QSDate& date) const;

  private:
    template <typename End, typename Start>
    platform::Result<End> run(const Start& start, const ProgressHandler& progress) const;
    template <typename End, typename Start>
    platform::Result<End> runOn(const ItemTarget& target, EntryChoice::Among among,
                                const Start& start, const ProgressHandler& progress) const;
    [[nodiscard]] platform::Result<ItemRecord> recordOf(
        const platform::Result<platform::ItemRef>& item) const;

    const std::unique_ptr<ExtensionSession>& session_;
    const VolumeAccess& volume_;
    const std::chrono::milliseconds stallDeadline_;
};

}  // namespace host

#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/local/EntryChoice.h"
#include "host/session/Mutations.h"

namespace host {

class ExtensionSession;
struct VolumeAccess;

/// Those of an extension in this process.
class LocalMutations final : public Mutations {
  public:
    /// Both must outlive this. An operation that gets no further for the time of `stallDeadline` is
    /// given up with ETIMEDOUT; what it does goes on.
    LocalMutations(const ExtensionSession& session, const VolumeAccess& volume,
                   std::chrono::milliseconds stallDeadline)
        : session_(session), volume_(volume), stallDeadline_(stallDeadline) {}

    [[nodiscard]] platform::Result<ItemRecord> makeDirectory(
        std::string_view name, const std::string& parent) const override;
    [[nodiscard]] platform::Result<ItemRecord> import(
        std::string_view path, const std::string& parent,
        const ProgressHandler& progress) const override;
    [[nodiscard]] platform::Result<ItemRecord> rename(const ItemTarget& target,
                                                      std::string_view name) const override;
    [[nodiscard]] platform::Result<ItemRecord> move(const ItemTarget& target,
                                                    const std::string& parent,
                                                    const std::optional<std::string>& name,
                                                    const ProgressHandler& progress) const override;
    [[nodiscard]] platform::Result<ItemRecord> trash(
        const ItemTarget& target, const ProgressHandler& progress) const override;
    [[nodiscard]] platform::Result<ItemRecord> untrash(
        const ItemTarget& target, const std::optional<std::string>& parent,
        const ProgressHandler& progress) const override;
    [[nodiscard]] platform::Result<void> remove(const ItemTarget& target,
                                                const ProgressHandler& progress) const override;
    [[nodiscard]] platform::Result<void> emptyTrash(const platform::QSDate& date) const override;
    [[nodiscard]] platform::Result<void> dateArrivalsInTrash() const override;
    [[nodiscard]] platform::Result<std::vector<ItemRecord>> trashedBefore(
        const platform::QSDate& date) const override;

  private:
    template <typename End, typename Start>
    platform::Result<End> run(const Start& start, const ProgressHandler& progress) const;
    template <typename End, typename Start>
    platform::Result<End> runOn(const ItemTarget& target, EntryChoice::Among among,
                                const Start& start, const ProgressHandler& progress) const;
    [[nodiscard]] platform::Result<ItemRecord> recordOf(
        const platform::Result<platform::ItemRef>& item) const;

    const ExtensionSession& session_;
    const VolumeAccess& volume_;
    const std::chrono::milliseconds stallDeadline_;
};

}  // namespace host

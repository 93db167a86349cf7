#pragma once

#include "host/service/Supervisor.h"
#include "host/session/Mutations.h"

namespace host {

/// The operations of a SupervisedSession.
class SupervisedMutations final : public Mutations {
  public:
    /// `supervisor` must outlive it.
    explicit SupervisedMutations(Supervisor& supervisor) : supervisor_(supervisor) {}

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
    Supervisor& supervisor_;
};

}  // namespace host

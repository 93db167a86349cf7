#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "host/service/SupervisedMutations.h"
#include "host/service/Supervisor.h"
#include "host/session/Session.h"

namespace host {

/// A session that outlives the extensions that answer it. A question that an extension did not
/// answer since it ended is put to the next one, once; an operation is not, since it may have been
/// done. Where there is none, the error meansUnavailable.
class SupervisedSession final : public Session {
  public:
    /// `supervisor` must outlive it.
    explicit SupervisedSession(Supervisor& supervisor)
        : supervisor_(supervisor), mutations_(supervisor) {}

    /// For health(): how many clients there are. Before others use the session.
    void countClients(std::function<std::uint64_t()> count) { clientCount_ = std::move(count); }

    [[nodiscard]] platform::Result<ItemRecord> item(const ItemTarget& target) const override;
    [[nodiscard]] platform::Result<std::string> resolve(std::string_view path) const override;
    [[nodiscard]] platform::Result<ItemTarget> resolveEntry(std::string_view path) const override;
    [[nodiscard]] platform::Result<std::string> path(const std::string& identifier) const override;
    [[nodiscard]] Page page(const std::string& container, const PageStart& start) override;
    [[nodiscard]] platform::Result<std::vector<std::string>> trashContainers() const override;
    [[nodiscard]] platform::Result<Anchor> anchor(const std::string& container) const override;
    [[nodiscard]] platform::Result<ChangePage> changes(const std::string& container,
                                                       const Anchor& since) const override;
    [[nodiscard]] platform::Result<std::unique_ptr<Following>> follow(
        const std::string& container) override;
    [[nodiscard]] const Mutations& mutations() const override { return mutations_; }
    [[nodiscard]] platform::Result<ItemRecord> setLastUsedDate(
        const ItemTarget& target, const std::optional<platform::QSDate>& date) const override;
    [[nodiscard]] platform::Result<ItemRecord> setTags(
        const ItemTarget& target, const std::vector<std::string>& labels) const override;
    [[nodiscard]] platform::Result<ItemRecord> setFavoriteRank(
        const ItemTarget& target, std::optional<std::uint64_t> rank) const override;
    [[nodiscard]] platform::Result<std::vector<Thumbnail>> thumbnails(
        const std::vector<std::string>& identifiers) const override;
    [[nodiscard]] platform::Result<platform::FileDescriptor> open(
        const ItemTarget& target) const override;
    [[nodiscard]] platform::Result<void> waitUntilSettled() const override;
    [[nodiscard]] platform::Result<Health> health() const override;
    [[nodiscard]] platform::Result<AgeLimit> limitForAge(std::chrono::seconds age) const override;
    [[nodiscard]] platform::Result<std::vector<AppRecord>> applications() const override;
    [[nodiscard]] platform::Result<void> setOverride(const std::string& identifier,
                                                     Override decision) override;
    [[nodiscard]] platform::Result<void> refreshApplications() override;
    void setDomainRemoval(DomainRemoval removal) override;

  private:
    Supervisor& supervisor_;
    const SupervisedMutations mutations_;
    std::function<std::uint64_t()> clientCount_;
};

}  // namespace host

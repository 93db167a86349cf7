#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/session/Session.h"
#include "host/wire/RemoteMutations.h"
#include "host/wire/ServiceClient.h"

namespace host {

/// A session with an extension of another process, through the document service there. A call
/// whose answer was lost fails with an error that meansServiceEnded; one that changes documents,
/// with one that meansMayBeDone.
class RemoteSession final : public Session, public std::enable_shared_from_this<RemoteSession> {
  public:
    explicit RemoteSession(std::unique_ptr<ServiceClient> client)
        : client_(std::move(client)), mutations_(*client_) {}

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
    /// What it returns is of no use to the service, which does not wait for it.
    void setDomainRemoval(DomainRemoval removal) override;

    /// See ServiceClient.
    void close() { client_->close(); }

    /// The identifiers of the items whose names match; see Search.
    [[nodiscard]] platform::Result<std::vector<std::string>> search(std::string_view text) const;

  private:
    const std::unique_ptr<ServiceClient> client_;
    const RemoteMutations mutations_;
};

}  // namespace host

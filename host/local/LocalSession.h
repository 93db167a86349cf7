#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/local/AppRegistry.h"
#include "host/local/ExtensionSession.h"
#include "host/local/LocalMutations.h"
#include "host/local/SignalBoard.h"
#include "host/local/VolumeAccess.h"
#include "host/session/Session.h"

namespace platform {
class QSFileProviderManager;
}

namespace host {

/// A session with an extension in this process.
class LocalSession final : public Session {
  public:
    struct Options {
        /// How long a page, of a listing or of changes, or an anchor may take.
        std::chrono::milliseconds pageDeadline = std::chrono::seconds(30);
        /// How long an operation that changes documents may go without getting any further.
        std::chrono::milliseconds stallDeadline = std::chrono::minutes(10);
        /// The installed platform's where empty or null.
        std::optional<NativePaths> paths = {};
        std::optional<VolumeAccess> volume = {};
        platform::QSFileProviderManager* manager = nullptr;
        /// No applications where empty.
        std::optional<AppRegistry> applications = {};
    };

    /// Makes the extension, which must not be null.
    explicit LocalSession(const ExtensionFactory& makeExtension);
    LocalSession(const ExtensionFactory& makeExtension, Options options);
    ~LocalSession() override;

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
    [[nodiscard]] platform::Result<std::shared_ptr<void>> watchEverywhere();
    [[nodiscard]] platform::Result<ItemRecord> itemAfter(
        const ItemTarget& target, const ExtensionSession::ItemRequest& request) const;

    // Constant after construction; the extension and signals have their own synchronisation.
    platform::QSFileProviderManager& manager_;
    const VolumeAccess volume_;
    const std::optional<AppRegistry> applications_;
    const std::shared_ptr<SignalBoard> signals_;
    std::unique_ptr<ExtensionSession> extension_;
    const LocalMutations mutations_;

    std::mutex mutex_;
    std::weak_ptr<void> everywhere_;  // guarded; the watch that all who follow something share
};

}  // namespace host

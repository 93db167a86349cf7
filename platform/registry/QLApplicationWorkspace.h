#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/QSError.h"
#include "platform/registry/QLApplicationProxy.h"
#include "platform/registry/QSDistributedNotificationCenter.h"
#include "platform/registry/RegistrySources.h"

namespace platform {

inline constexpr std::string_view applicationRegisteredNotification =
    "com.quenby.Registrar.applicationRegistered";
inline constexpr std::string_view applicationUnregisteredNotification =
    "com.quenby.Registrar.applicationUnregistered";

/// The installed applications, out of desktop entries; docs/registry.md says which.
///
/// Any thread. Answers come from the last reading of the folders; the first one is made by whoever
/// asks first, and blocks for the disk. Records are sorted by identifier, one for each.
class QLApplicationWorkspace {
  public:
    struct Configuration {
        RegistrySources sources = {};
        /// The URL of the data container of that identifier at a native path, which need not exist;
        /// an error where it cannot be part of the tree. Called while folders are read; must not
        /// call the workspace.
        std::function<Result<QSURL>(std::string_view identifier, const std::string& path)>
            presentContainer = {};
        /// Gets what is wrong with entries, each line once while it lasts. The same restriction.
        std::function<void(const std::string& trouble)> report = {};
        /// Called after each reading, changed or not, by the thread that read.
        std::function<void()> afterReading = {};
        /// Called when the records are other than before, by the thread that read. May be null.
        std::shared_ptr<QSDistributedNotificationCenter> notifications = {};

        std::chrono::milliseconds rest{100};  ///< without events, before the folders are read
        std::chrono::milliseconds most{500};  ///< of waiting for that rest
        std::chrono::milliseconds period = std::chrono::minutes(10);           ///< between readings
        std::chrono::milliseconds unwatchedPeriod = std::chrono::seconds(30);  ///< without watches
        std::size_t mostWatches = 4096;
    };

    explicit QLApplicationWorkspace(Configuration configuration);
    ~QLApplicationWorkspace();

    /// That of the process, which makeDefault() was called on; ends the process where there is
    /// none.
    [[nodiscard]] static QLApplicationWorkspace& defaultWorkspace();
    void makeDefault();

    /// Follows the folders from now on, those that are still to be made too; again is fine.
    void follow();
    /// Returns when nothing is followed and no notification is on its way.
    void stop();
    /// Reads the folders now. Notifications have been posted when it returns.
    void refresh();

    void enumerateApplicationsOfType(QLApplicationType type,
                                     const std::function<void(const ApplicationRef&)>& block) const;
    /// The record of that identifier, or of the application that was renamed from it; null where
    /// none is installed.
    [[nodiscard]] ApplicationRef applicationProxyForIdentifier(std::string_view identifier) const;
    [[nodiscard]] BundleRef bundleProxyForIdentifier(std::string_view identifier) const;

    enum class Override : std::uint8_t {
        Allow,   ///< as though the application supported the document browser
        Deny,    ///< as though it supported nothing
        Remove,  ///< as the application says
    };
    /// Durable, and in force when it returns. ENOENT where no such application is installed, but
    /// for Remove; EINVAL for what is no identifier.
    Result<void> setOverride(std::string_view identifier, Override given);

    /// Whether all changes will be noticed at once, rather than by and by.
    [[nodiscard]] bool isWatchedWhole() const;

  private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace platform

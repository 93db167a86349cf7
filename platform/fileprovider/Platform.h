#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/device/DeviceAnswers.h"
#include "platform/fileprovider/AppContainers.h"
#include "platform/fileprovider/QSFileProviderManager.h"
#include "platform/fileprovider/UnfinishedWork.h"
#include "platform/files/FileSystem.h"
#include "platform/foundation/QSError.h"
#include "platform/icons/IconLibrary.h"
#include "platform/log/CrashReports.h"
#include "platform/registry/QLApplicationWorkspace.h"
#include "platform/registry/QSDistributedNotificationCenter.h"
#include "platform/types/TypeRegistry.h"
#include "platform/volume/FSEventStream.h"
#include "platform/volume/StorageCatalog.h"
#include "platform/volume/VolumeService.h"

namespace platform {

/// Everything that the extension stands on, built once in main (in tests: on a scratch folder) and
/// installed for the process. The accessors that the provider interface needs (`defaultManager`
/// and the like) are views of the installed one.
class Platform {
  public:
    /// Native folders. Empty ones take the XDG defaults: "tidewell" below the data, state, cache,
    /// configuration and data homes. Of a platform, the first four are the storage's own: its
    /// folder as resolved, and "storages/NAME" below those of the options.
    struct Folders {
        std::string storage;  ///< must exist
        std::string data;
        std::string state;
        std::string cache;
        std::string config;
        std::string applicationSupport;
    };

    struct Options {
        Folders folders = {};
        bool followsAtStart = true;
        /// The user's where nothing is set. Overrides are in `config` in any case.
        std::optional<RegistrySources> applications = {};
        /// Has the last word about the registry.
        std::function<void(QLApplicationWorkspace::Configuration&)> adjustRegistry = {};
        std::function<void(std::uint64_t entries)> scanProgress = {};
        /// Where icons come from instead of this user's icon themes.
        std::shared_ptr<const IconLibrary> icons = {};
        /// Has the last word about how the volume is followed.
        std::function<void(VolumeService::Configuration&)> adjustVolume = {};
        /// Where event streams read instead of the volume's own history; must outlive the platform.
        EventHistory* history = nullptr;
        /// Whether another folder may take the place of the storage that was at that path before.
        bool acceptsReplacement = false;
    };

    /// Opens the storage and its volume's store, and raises the process's limit of open files as
    /// far as it may. Fails with the first error; nothing is left behind. Where that is the error
    /// of a storage that is known and missing, it meansStorageMissing, and nothing was written.
    [[nodiscard]] static Result<std::unique_ptr<Platform>> make(Options options);
    [[nodiscard]] static bool meansStorageMissing(const QSError& error);
    /// Whether another process uses the storage's store.
    [[nodiscard]] static bool meansInUse(const QSError& error);
    /// The socket of the process through which it is used; none unless that serves others.
    [[nodiscard]] static std::optional<std::string> serviceSocketOf(const QSError& error);
    ~Platform();

    /// The installed platform. Fatal where none is.
    [[nodiscard]] static Platform& current();
    /// Installs this platform for the process until it is destroyed. Fatal where one is installed.
    void install();

    [[nodiscard]] const Folders& folders() const { return folders_; }
    [[nodiscard]] FileSystem& files() { return *files_; }
    [[nodiscard]] UnfinishedWork& unfinished() { return *unfinished_; }
    /// Deals in the background with what earlier processes left unfinished in the storage and in
    /// the libraries known so far. Any thread; returns at once.
    void finishWhatWasLeft();
    [[nodiscard]] const TypeRegistry& types() const { return types_; }
    [[nodiscard]] VolumeService& volume() { return *volume_; }
    /// What event streams read from. Its gate closes before anything of the platform goes, so a
    /// block that is inside may use all of it.
    [[nodiscard]] const FSEventSource& events() const { return events_; }
    [[nodiscard]] QSFileProviderManager& manager() { return *manager_; }
    [[nodiscard]] QLApplicationWorkspace& workspace() { return *workspace_; }
    [[nodiscard]] AppContainers& containers() { return *containers_; }
    [[nodiscard]] const IconLibrary& icons() const { return *icons_; }
    /// What was found when the platform was made.
    [[nodiscard]] const DeviceAnswers& device() const { return device_; }
    /// Shared, since observers may be removed after the platform is destroyed.
    [[nodiscard]] std::shared_ptr<QSDistributedNotificationCenter> notifications() const {
        return notifications_;
    }
    [[nodiscard]] const CrashReports& crashReports() const { return *crashReports_; }

  private:
    Platform() = default;
    void makeRegistry(const Options& options);
    void useFoldersOf(const StorageCatalog::Storage& storage, const std::string& name);
    void readConfiguration(const Options& options);

    // Constant after make(); each has its own synchronisation.
    Folders folders_;
    std::unique_ptr<FileSystem> files_;
    std::unique_ptr<UnfinishedWork> unfinished_;
    TypeRegistry types_;
    DeviceAnswers device_;
    std::shared_ptr<const IconLibrary> icons_;
    std::unique_ptr<CrashReports> crashReports_;
    std::shared_ptr<QSDistributedNotificationCenter> notifications_;
    std::unique_ptr<QSFileProviderManager> manager_;
    std::unique_ptr<VolumeService> volume_;
    std::unique_ptr<AppContainers> containers_;
    std::unique_ptr<QLApplicationWorkspace> workspace_;  // reads what stands before it
    FSEventSource events_;
};

/// The XDG documents folder of the user: XDG_DOCUMENTS_DIR of user-dirs.dirs, else ~/Documents.
[[nodiscard]] std::string userDocumentsFolder();

}  // namespace platform

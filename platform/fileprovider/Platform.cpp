#include "platform/fileprovider/Platform.h"

#include <fcntl.h>
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>
#include <vector>

#include "platform/dispatch/Queue.h"
#include "platform/files/ExtendedAttributes.h"
#include "platform/foundation/fatalError.h"
#include "platform/log/Log.h"
#include "platform/tree/PathRelation.h"
#include "platform/volume/StoreLock.h"

namespace platform {

namespace {

std::atomic<Platform*> installedPlatform = nullptr;

std::string homeFolder() {
    const char* home = std::getenv("HOME");
    return home && home[0] == '/' ? home : "/";
}

/// An XDG base folder: the variable where it holds an absolute path, else the default below home.
std::string baseFolder(const char* variable, std::string_view below) {
    const char* value = std::getenv(variable);
    if (value && value[0] == '/') return value;
    return homeFolder() + "/" + std::string(below);
}

/// The absolute ones of paths between colons; others are passed over, as XDG says.
std::vector<std::string> absolutePaths(const char* list) {
    std::vector<std::string> paths;
    std::istringstream rest(list);
    for (std::string path; std::getline(rest, path, ':');) {
        if (path.starts_with('/')) paths.push_back(path);
    }
    return paths;
}

std::vector<std::string> typeDeclarationFolders(const std::string& dataFolder) {
    const char* system = std::getenv("XDG_DATA_DIRS");
    auto folders = absolutePaths(system && *system ? system : "/usr/local/share:/usr/share");
    for (auto& folder : folders) folder += "/tidewell/types.d";
    // The first folder named wins, so it is read last.
    std::ranges::reverse(folders);
    folders.push_back(dataFolder + "/types.d");
    return folders;
}

void fillDefaults(Platform::Folders& folders) {
    const auto fill = [](std::string& folder, const char* variable, std::string_view below) {
        if (folder.empty()) folder = baseFolder(variable, below) + "/tidewell";
    };
    fill(folders.data, "XDG_DATA_HOME", ".local/share");
    fill(folders.state, "XDG_STATE_HOME", ".local/state");
    fill(folders.cache, "XDG_CACHE_HOME", ".cache");
    fill(folders.config, "XDG_CONFIG_HOME", ".config");
    if (folders.applicationSupport.empty()) {
        folders.applicationSupport = folders.data + "/applications";
    }
    if (folders.storage.empty()) folders.storage = userDocumentsFolder();
}

/// A walk holds one descriptor for each level it is in; the usual soft limit is for programs that
/// still use select().
void raiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    (void)setrlimit(RLIMIT_NOFILE, &limit);
}

/// Without "." and the like, links not followed.
std::string absolutePath(const std::string& path) {
    std::error_code failure;
    auto absolute = std::filesystem::absolute(path, failure).lexically_normal().string();
    while (absolute.size() > 1 && absolute.ends_with('/')) absolute.pop_back();
    return absolute;
}

Result<StorageCatalog::Storage> storageOf(const FileSystem& files, const std::string& given) {
    const auto folder = files.openObject(files.storageURL(), O_RDONLY | O_DIRECTORY);
    if (!folder) return std::unexpected(folder.error());
    const auto attributes = files.freshAttributes(files.storageURL());
    if (!attributes) return std::unexpected(attributes.error());
    const auto& [identity, isWeak] =
        std::pair((*attributes)->identity, (*attributes)->identityIsWeak);
    return StorageCatalog::Storage{given, files.nativeStoragePath(),
                                   VolumeFingerprint::of(folder->get(), identity), isWeak};
}

/// EINVAL where the storage lies in a folder of its own store.
Result<void> checkPlaces(const Platform::Folders& folders, const std::string& storage) {
    for (const auto& folder : {folders.data, folders.state, folders.cache}) {
        std::error_code failure;
        const auto path = std::filesystem::weakly_canonical(folder, failure).string();
        if (failure || !isAtOrBelow(storage, path)) continue;
        auto error = errorFromErrno(EINVAL, storage);
        error.userInfo.emplace(QSDescriptionErrorKey,
                               "the storage lies inside " + path +
                                   ", where its identities are kept; name another one of the two");
        return std::unexpected(std::move(error));
    }
    return {};
}

/// Has the storage pass over the folders of data, state and cache wherever they lie.
void passOver(const Platform::Folders& folders, FileSystem& files) {
    const std::array own{folders.data, folders.state, folders.cache};
    for (const auto& folder : own) {
        // One that cannot be made is reported by whoever writes there.
        std::error_code failure;
        if (!std::filesystem::create_directories(folder, failure)) continue;
        std::filesystem::permissions(folder, std::filesystem::perms::owner_all, failure);
    }
    files.passOver(own);
}

}  // namespace

Result<std::unique_ptr<Platform>> Platform::make(Options options) {
    raiseDescriptorLimit();
    fillDefaults(options.folders);
    std::unique_ptr<Platform> platform(new Platform);
    platform->folders_ = options.folders;
    auto catalog = StorageCatalog::load(options.folders.data, options.folders.state);
    if (!catalog) return std::unexpected(std::move(catalog.error()));
    const auto given = absolutePath(options.folders.storage);
    auto files = FileSystem::open(options.folders.storage);
    if (!files) return std::unexpected(catalog->errorForMissing(given, std::move(files.error())));
    platform->files_ = std::move(*files);
    const auto& resolvedStorage = platform->files_->nativeStoragePath();
    if (auto done = checkPlaces(options.folders, resolvedStorage); !done) {
        return std::unexpected(std::move(done.error()));
    }
    auto storage = storageOf(*platform->files_, given);
    if (!storage) return std::unexpected(std::move(storage.error()));
    const auto own = catalog->nameOf(*storage, options.acceptsReplacement);
    if (!own) return std::unexpected(own.error());
    platform->useFoldersOf(*storage, *own);
    passOver(options.folders, *platform->files_);
    const auto& folders = platform->folders_;
    for (const auto& error : platform->types_.load(typeDeclarationFolders(options.folders.data))) {
        Log::platformLog().write(LogLevel::Error, [&] { return error.description(); });
    }
    platform->readConfiguration(options);
    platform->crashReports_ = std::make_unique<CrashReports>(options.folders.state + "/crashes");
    platform->notifications_ = std::make_shared<QSDistributedNotificationCenter>();
    platform->unfinished_ =
        std::make_unique<UnfinishedWork>(*platform->files_, folders.state + "/unfinished");
    platform->manager_ = std::make_unique<QSFileProviderManager>(platform->files_->storageURL());
    VolumeService::Configuration configuration{
        .files = *platform->files_,
        .dataFolder = folders.data,
        .stateFolder = folders.state,
        .progress = std::move(options.scanProgress),
        .followsAtStart = options.followsAtStart,
        .isPackageName =
            [&types = platform->types_](std::string_view name) {
                return types.conforms(types.typeOfDirectory(name), packageTypeIdentifier);
            },
        .metadataNames = {std::string(lastUsedDateAttribute), std::string(tagDataAttribute),
                          std::string(favoriteRankAttribute)}};
    if (options.adjustVolume) options.adjustVolume(configuration);
    auto volume = VolumeService::open(std::move(configuration));
    if (!volume) return std::unexpected(volume.error());
    platform->volume_ = std::move(*volume);
    platform->makeRegistry(options);
    platform->events_ = {options.history ? options.history : platform->volume_.get(),
                         std::make_shared<UseGate>()};
    // The store is ours, so whatever is recorded is an earlier process's. It may be a large tree.
    platform->finishWhatWasLeft();
    return platform;
}

void Platform::finishWhatWasLeft() {
    dispatchConcurrently([pass = events_.gate->enter(), this] {
        if (!pass) return;
        unfinished_->finish([this](const ObjectIdentity& folder) -> Result<QSURL> {
            if (auto seen = volume_->waitUntilSeen(); !seen) return std::unexpected(seen.error());
            const auto place = volume_->placeOfInode(folder.inode);
            if (!place) return std::unexpected(errorFromErrno(ENOENT));
            return *place;
        });
    });
}

void Platform::useFoldersOf(const StorageCatalog::Storage& storage, const std::string& name) {
    folders_.storage = storage.resolved;
    for (auto* folder : {&folders_.data, &folders_.state, &folders_.cache}) {
        *folder += "/storages/" + name;
    }
}

bool Platform::meansStorageMissing(const QSError& error) {
    return StorageCatalog::meansMissing(error);
}

bool Platform::meansInUse(const QSError& error) {
    return error.domain == QSPOSIXErrorDomain && error.code == EBUSY;
}

std::optional<std::string> Platform::serviceSocketOf(const QSError& error) {
    const auto found = error.userInfo.find(serviceSocketErrorKey);
    return found == error.userInfo.end() ? std::nullopt : std::optional(found->second);
}

void Platform::readConfiguration(const Options& options) {
    constexpr const char* name = "/tidewell.conf";
    auto configuration = KeyFile::read(folders_.config + name);
    const char* system = std::getenv("XDG_CONFIG_DIRS");
    for (const auto& folder : absolutePaths(system && *system ? system : "/etc/xdg")) {
        configuration.addMissing(KeyFile::read(folder + "/tidewell" + name));
    }
    device_ = DeviceAnswers::ofConfiguration(configuration);
    icons_ = options.icons;
    if (icons_) return;
    const auto theme = configuration.value("Icons", "Theme").value_or("");
    icons_ =
        makeIconLibrary({.themes = IconThemes::ofUser(theme), .helper = installedIconHelper()});
}

void Platform::makeRegistry(const Options& options) {
    containers_ = std::make_unique<AppContainers>(*files_, *volume_);
    QLApplicationWorkspace::Configuration configuration{
        .sources = options.applications ? *options.applications : RegistrySources::ofUser(),
        .presentContainer =
            [this](std::string_view identifier, const std::string& path) {
                return containers_->URLForContainer(identifier, path);
            },
        .report =
            [](const std::string& trouble) { Log::platformLog().write(LogLevel::Error, trouble); },
        .afterReading = [this] { containers_->lookAgain(); },
        .notifications = notifications_};
    configuration.sources.overrides = folders_.config + "/applications";
    if (options.adjustRegistry) options.adjustRegistry(configuration);
    workspace_ = std::make_unique<QLApplicationWorkspace>(std::move(configuration));
    if (options.followsAtStart) workspace_->follow();
}

Platform::~Platform() {
    if (workspace_) workspace_->stop();
    if (events_.gate) events_.gate->close();
    Platform* self = this;
    installedPlatform.compare_exchange_strong(self, nullptr);
}

Platform& Platform::current() {
    Platform* platform = installedPlatform.load(std::memory_order_acquire);
    if (!platform) fatalError("no platform is installed");
    return *platform;
}

void Platform::install() {
    Platform* none = nullptr;
    if (!installedPlatform.compare_exchange_strong(none, this)) {
        fatalError("a platform is installed already");
    }
    workspace_->makeDefault();
}

std::string userDocumentsFolder() {
    constexpr std::string_view key = "XDG_DOCUMENTS_DIR=\"";
    const auto fallback = homeFolder() + "/Documents";
    std::ifstream file(baseFolder("XDG_CONFIG_HOME", ".config") + "/user-dirs.dirs");
    for (std::string line; std::getline(file, line);) {
        const auto begin = line.find_first_not_of(" \t");
        if (begin == std::string::npos || line.compare(begin, key.size(), key) != 0) continue;
        const auto end = line.rfind('"');
        auto value = line.substr(begin + key.size());
        if (end < begin + key.size()) continue;
        value.resize(end - begin - key.size());
        if (value == "$HOME" || value == "$HOME/") return fallback;  // means: switched off
        if (value.starts_with("$HOME/")) return homeFolder() + value.substr(5);
        if (value.starts_with('/')) return value;
    }
    return fallback;
}

}  // namespace platform

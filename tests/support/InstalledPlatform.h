#pragma once

#include <gtest/gtest.h>

#include "platform/fileprovider/Platform.h"
#include "platform/log/Log.h"
#include "platform/tree/TreeLayout.h"
#include "tests/support/ScratchFolder.h"

namespace tests {

using namespace platform;

/// A platform on a scratch folder, installed for one test, with its log in memory.
class InstalledPlatform : public testing::Test {
  protected:
    InstalledPlatform() {
        scratch.makeFolder("storage");
        restart();
    }
    ~InstalledPlatform() override { installLog(nullptr, LogLevel::Error); }

    /// Ends the platform and starts it again on the same folders, as a new process would.
    void restart() {
        installed.reset();
        log = std::make_shared<MemorySink>();
        installLog(log, LogLevel::Debug);
        auto made = Platform::make({.folders = {.storage = storage().string(),
                                                .data = scratch / "data",
                                                .state = scratch / "state",
                                                .cache = scratch / "cache",
                                                .config = scratch / "config",
                                                .applicationSupport = scratch / "apps"},
                                    .followsAtStart = history == nullptr,
                                    .applications = applications(),
                                    .adjustRegistry = adjustRegistry,
                                    .icons = icons,
                                    .adjustVolume = adjustVolume,
                                    .history = history});
        ASSERT_TRUE(made) << made.error().description();
        installed = std::move(*made);
        installed->install();
    }

    /// Only what is below the scratch folder.
    [[nodiscard]] RegistrySources applications() const {
        return {.dataHome = scratch / "share",
                .dataFolders = {scratch / "system/share"},
                .flatpakUser = scratch / "share/flatpak",
                .flatpakSystem = scratch / "flatpak",
                .flatpakInstallations = scratch / "etc/flatpak",
                .containers = scratch / "containers",
                .overrides = {},
                .languages = {}};
    }
    /// A desktop entry of the user's with these further lines, of an application that has run
    /// before; what follows the folder will notice.
    std::filesystem::path installApplication(const std::string& identifier, const std::string& name,
                                             std::string_view lines = {}) const {
        scratch.makeFolder("containers/" + identifier + "/Documents");
        return scratch.makeFile(
            "share/applications/" + identifier + ".desktop",
            "[Desktop Entry]\nType=Application\nName=" + name + "\n" + std::string(lines));
    }
    /// An application with a library; its container need not have the name of the identifier.
    [[nodiscard]] BundleRef bundle(const std::string& identifier,
                                   const std::string& container = {}) const {
        const auto& folder = container.empty() ? identifier : container;
        return std::make_shared<const QLBundleProxy>(QLBundleProxy{
            .bundleIdentifier = identifier,
            .dataContainerURL = containerURL(identifier),
            .displayName = "Name of " + identifier,
            .dataContainerPath =
                scratch.makeFolder("containers/" + folder + "/Documents").parent_path()});
    }
    [[nodiscard]] std::filesystem::path storage() const { return scratch / "storage"; }
    [[nodiscard]] std::filesystem::path file(const std::string& name) const {
        return scratch.makeFile("storage/" + name);
    }
    [[nodiscard]] std::filesystem::path folder(const std::string& name) const {
        return scratch.makeFolder("storage/" + name);
    }
    /// The presented URL of a path below the storage, with nothing kept yet.
    [[nodiscard]] QSURL url(const std::string& below = {}) const {
        return QSURL::fileURLWithPath(std::string(presentedStoragePath) + "/" + below);
    }

    /// Messages of that level that hold `part`.
    [[nodiscard]] std::vector<std::string> logged(LogLevel level, std::string_view part) const {
        std::vector<std::string> found;
        for (const auto& record : log->records()) {
            if (record.level == level && record.message.find(part) != std::string::npos) {
                found.push_back(record.message);
            }
        }
        return found;
    }

    /// Takes effect with the next restart; null is the volume's own. With another one the index
    /// learns of places only from what asks for identifiers.
    EventHistory* history = nullptr;
    std::function<void(VolumeService::Configuration&)> adjustVolume;
    std::shared_ptr<const IconLibrary> icons;
    std::function<void(QLApplicationWorkspace::Configuration&)> adjustRegistry;
    ScratchFolder scratch;
    std::shared_ptr<MemorySink> log;
    std::unique_ptr<Platform> installed;
};

}  // namespace tests

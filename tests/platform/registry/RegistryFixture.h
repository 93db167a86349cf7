#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <semaphore>
#include <string>
#include <string_view>
#include <vector>

#include "platform/registry/QLApplicationWorkspace.h"
#include "tests/support/ScratchFolder.h"

namespace tests {

/// A registry over scratch folders, which are not there yet.
class RegistryFixture : public testing::Test {
  protected:
    RegistryFixture() {
        configuration.sources = {.dataHome = scratch / "home/share",
                                 .dataFolders = {scratch / "local/share", scratch / "usr/share"},
                                 .flatpakUser = scratch / "home/share/flatpak",
                                 .flatpakSystem = scratch / "flatpak",
                                 .flatpakInstallations = scratch / "etc/installations.d",
                                 .containers = scratch / "containers",
                                 .overrides = scratch / "config/applications",
                                 .languages = platform::localeNames("sr_RS.UTF-8@latin")};
        configuration.report = [this](const std::string& trouble) { troubles.push_back(trouble); };
        configuration.notifications = std::make_shared<platform::QSDistributedNotificationCenter>();
        configuration.rest = std::chrono::milliseconds(20);
    }

    platform::QLApplicationWorkspace& open() {
        workspace = std::make_unique<platform::QLApplicationWorkspace>(configuration);
        return *workspace;
    }
    /// An entry at a path below the scratch folder.
    std::filesystem::path entry(std::string_view path, std::string_view name,
                                const std::string& lines = {}) const {
        return scratch.makeFile(
            path, "[Desktop Entry]\nType=Application\nName=" + std::string(name) + "\n" + lines);
    }
    /// "ID name", sorted by ID, of either type.
    [[nodiscard]] std::vector<std::string> listed(platform::QLApplicationType type) const {
        std::vector<std::string> found;
        workspace->enumerateApplicationsOfType(type, [&](const auto& application) {
            found.push_back(*application->bundleIdentifier + " " +
                            application->localizedName().value_or("-"));
        });
        return found;
    }

    ScratchFolder scratch;
    platform::QLApplicationWorkspace::Configuration configuration;
    std::vector<std::string> troubles;
    std::unique_ptr<platform::QLApplicationWorkspace> workspace;
};

}  // namespace tests

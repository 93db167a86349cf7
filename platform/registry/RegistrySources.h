#pragma once

#include <string>
#include <vector>

#include "platform/registry/QLApplicationProxy.h"

namespace platform {

/// Native folders that the registry is made of. An empty one is left out.
struct RegistrySources {
    std::string dataHome;                  ///< XDG; its entries go before all others
    std::vector<std::string> dataFolders;  ///< XDG, most important first
    std::string flatpakUser;               ///< an installation, "exports/share" is in it
    std::string flatpakSystem;             ///< the same
    std::string flatpakInstallations;      ///< of *.conf files that name more of the kind
    std::string containers;                ///< the data container of an application is in it by ID
    std::string overrides;                 ///< of the user
    std::vector<std::string> languages;    ///< of names, best first, as desktop entries name them

    /// Those of this process's environment, all but `overrides`.
    [[nodiscard]] static RegistrySources ofUser();
};

/// A folder "share" with "applications" and "icons" in it.
struct ApplicationFolder {
    std::string path;
    QLApplicationType type = QLApplicationType::System;
};

/// All of the sources, most important first, each once. `watched` gets what decides about them.
/// Flatpak's are named by us, since a process that began before Flatpak was installed has an
/// environment without them; where the environment names them too, its order holds.
[[nodiscard]] std::vector<ApplicationFolder> applicationFolders(const RegistrySources& sources,
                                                                std::vector<std::string>& watched);

/// What desktop entries may call a locale such as "sr_RS.UTF-8@latin", best first.
[[nodiscard]] std::vector<std::string> localeNames(std::string_view locale);

}  // namespace platform

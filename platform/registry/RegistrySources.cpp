#include "platform/registry/RegistrySources.h"

#include <glib.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <sstream>

namespace platform {

namespace {

constexpr std::string_view exports = "/exports/share";

std::string variable(const char* name) {
    const char* value = std::getenv(name);
    return value ? value : "";
}

std::string absoluteOr(std::string value, std::string otherwise) {
    return value.starts_with('/') ? std::move(value) : std::move(otherwise);
}

std::vector<std::string> split(const std::string& list) {
    std::vector<std::string> parts;
    std::istringstream stream(list);
    for (std::string part; std::getline(stream, part, ':');) {
        if (!part.empty()) parts.push_back(std::move(part));
    }
    return parts;
}

std::vector<std::string> languagesOfUser() {
    auto locale = variable("LC_ALL");
    if (locale.empty()) locale = variable("LC_MESSAGES");
    if (locale.empty()) locale = variable("LANG");
    if (locale.empty() || locale == "C" || locale == "POSIX") return {};
    // A list of languages counts only where there is a locale.
    auto locales = split(variable("LANGUAGE"));
    locales.push_back(locale);
    std::vector<std::string> names;
    for (const auto& each : locales) {
        for (auto& name : localeNames(each)) {
            if (std::ranges::find(names, name) == names.end()) names.push_back(std::move(name));
        }
    }
    return names;
}

/// The paths of the installations that a file names.
void readInstallations(const std::string& path, std::vector<std::string>& into) {
    struct Free {
        void operator()(GKeyFile* file) const { g_key_file_free(file); }
        void operator()(char* text) const { g_free(text); }
        void operator()(char** texts) const { g_strfreev(texts); }
    };
    std::error_code error;
    constexpr std::uintmax_t most = 65'536;
    if (!std::filesystem::is_regular_file(path, error)) return;
    if (std::filesystem::file_size(path, error) > most || error) return;
    const std::unique_ptr<GKeyFile, Free> file(g_key_file_new());
    if (g_key_file_load_from_file(file.get(), path.c_str(), G_KEY_FILE_NONE, nullptr) == 0) return;
    const std::unique_ptr<char*, Free> groups(g_key_file_get_groups(file.get(), nullptr));
    for (char** group = groups.get(); *group; ++group) {
        if (!std::string_view(*group).starts_with("Installation ")) continue;
        const std::unique_ptr<char, Free> value(
            g_key_file_get_string(file.get(), *group, "Path", nullptr));
        if (value && *value == '/') into.emplace_back(value.get());
    }
}

std::vector<std::string> systemInstallations(const RegistrySources& sources) {
    std::vector<std::string> files;
    std::error_code error;
    if (!sources.flatpakInstallations.empty()) {
        for (std::filesystem::directory_iterator at(sources.flatpakInstallations, error), end;
             !error && at != end; at.increment(error)) {
            if (at->path().extension() == ".conf") files.push_back(at->path());
        }
    }
    std::ranges::sort(files);
    std::vector<std::string> installations;
    for (const auto& file : files) readInstallations(file, installations);
    if (!sources.flatpakSystem.empty()) installations.push_back(sources.flatpakSystem);
    return installations;
}

}  // namespace

std::vector<std::string> localeNames(std::string_view locale) {
    const auto at = locale.find('@');
    const auto modifier = at == std::string_view::npos ? "" : locale.substr(at);
    locale = locale.substr(0, at);
    locale = locale.substr(0, locale.find('.'));
    const auto language = locale.substr(0, locale.find('_'));
    std::vector<std::string> names;
    const auto add = [&](std::string_view stem, std::string_view end) {
        auto name = std::string(stem) + std::string(end);
        if (!name.empty() && std::ranges::find(names, name) == names.end()) {
            names.push_back(std::move(name));
        }
    };
    add(locale, modifier);
    add(locale, "");
    add(language, modifier);
    add(language, "");
    return names;
}

RegistrySources RegistrySources::ofUser() {
    const auto home = absoluteOr(variable("HOME"), "/");
    RegistrySources sources;
    sources.dataHome = absoluteOr(variable("XDG_DATA_HOME"), home + "/.local/share");
    const auto folders = variable("XDG_DATA_DIRS");
    for (auto& folder : split(folders.empty() ? "/usr/local/share:/usr/share" : folders)) {
        if (folder.starts_with('/')) sources.dataFolders.push_back(std::move(folder));
    }
    sources.flatpakUser = absoluteOr(variable("FLATPAK_USER_DIR"), sources.dataHome + "/flatpak");
    sources.flatpakSystem = absoluteOr(variable("FLATPAK_SYSTEM_DIR"), "/var/lib/flatpak");
    sources.flatpakInstallations =
        absoluteOr(variable("FLATPAK_CONFIG_DIR"), "/etc/flatpak") + "/installations.d";
    sources.containers = home + "/.var/app";
    sources.languages = languagesOfUser();
    return sources;
}

std::vector<ApplicationFolder> applicationFolders(const RegistrySources& sources,
                                                  std::vector<std::string>& watched) {
    using enum QLApplicationType;
    std::vector<ApplicationFolder> folders;
    const auto add = [&](std::string path, QLApplicationType type) {
        while (path.ends_with('/')) path.pop_back();
        if (path.empty() ||
            std::ranges::find(folders, path, &ApplicationFolder::path) != folders.end()) {
            return;
        }
        folders.push_back({std::move(path), type});
    };
    const auto isInEnvironment = [&](const std::string& path) {
        return std::ranges::any_of(sources.dataFolders, [&](std::string_view folder) {
            return folder == path || folder == path + "/";
        });
    };
    std::vector<ApplicationFolder> installations;
    if (!sources.flatpakUser.empty()) installations.push_back({sources.flatpakUser, User});
    for (auto& path : systemInstallations(sources)) installations.push_back({path, System});
    watched.push_back(sources.flatpakInstallations);

    add(sources.dataHome, User);
    for (const auto& [path, type] : installations) {
        watched.push_back(path);  // ".changed" is in it
        const auto share = path + std::string(exports);
        if (!isInEnvironment(share)) add(share, type);
    }
    for (const auto& folder : sources.dataFolders) {
        const bool isUsers = folder.starts_with(sources.flatpakUser + std::string(exports));
        add(folder, isUsers && !sources.flatpakUser.empty() ? User : System);
    }
    return folders;
}

}  // namespace platform

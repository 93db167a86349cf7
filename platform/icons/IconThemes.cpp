#include "platform/icons/IconThemes.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <iterator>
#include <map>
#include <sstream>
#include <string_view>

#include "platform/foundation/KeyFile.h"

namespace platform {

namespace {

constexpr std::size_t mostThemes = 32;
constexpr std::size_t mostFolders = 1024;  // of one theme
constexpr std::string_view lastTheme = "hicolor";
constexpr std::array<std::string_view, 2> endings{".png", ".svg"};

bool isFile(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

/// The file of that name without its ending in the folder.
std::optional<std::string> fileIn(const std::string& folder, const std::string& name) {
    for (const auto ending : endings) {
        auto path = folder + "/" + name + std::string(ending);
        if (isFile(path)) return path;
    }
    return std::nullopt;
}

/// A name that leads nowhere but into the folder that it is looked for in.
bool isPlain(std::string_view name) {
    return !name.empty() && name != "." && name != ".." && name.size() <= NAME_MAX &&
           name.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

/// The same of a folder of a theme, which may have parts.
bool leadsDown(std::string_view folder) {
    for (std::size_t begin = 0; begin <= folder.size();) {
        const auto end = std::min(folder.find('/', begin), folder.size());
        if (!isPlain(folder.substr(begin, end - begin))) return false;
        begin = end + 1;
    }
    return folder.size() < PATH_MAX;
}

/// What a theme says of one of its folders.
struct IconFolder {
    int scale = 1;
    int least = 0;  // points, both included
    int most = 0;
};

std::optional<IconFolder> iconFolder(const KeyFile& index, const std::string& name) {
    const auto size = index.positive(name, "Size");
    if (!size || !leadsDown(name)) return std::nullopt;
    const auto type = index.value(name, "Type").value_or("Threshold");
    IconFolder folder{index.positive(name, "Scale").value_or(1), *size, *size};
    if (type == "Scalable") {
        folder.least = index.positive(name, "MinSize").value_or(*size);
        folder.most = index.positive(name, "MaxSize").value_or(*size);
    } else if (type == "Threshold") {
        const int threshold = index.positive(name, "Threshold").value_or(2);
        folder.least = *size - threshold;
        folder.most = *size + threshold;
    }
    return folder;
}

/// How far the folder's icons are from what is wanted, in pixels; 0 for a match, and the same
/// number of pixels at another scale comes right after that.
long distance(const IconFolder& folder, int points, int scale) {
    const auto pixels = long{points} * scale;
    const auto least = long{folder.least} * folder.scale;
    const auto most = long{folder.most} * folder.scale;
    const auto off = pixels < least ? least - pixels : pixels > most ? pixels - most : 0;
    return 2 * off + (folder.scale == scale ? 0 : 1);
}

}  // namespace

/// One look-up: what is looked for, and which themes were asked already.
struct IconThemes::Search {
    const std::vector<std::string>& folders;
    std::string name;
    int points;
    int scale;
    std::set<std::string> asked = {};

    /// In the theme, then in those that it inherits from, depth first.
    std::optional<std::string> inTheme(const std::string& theme) {
        if (!isPlain(theme) || asked.size() == mostThemes || !asked.insert(theme).second) {
            return std::nullopt;
        }
        KeyFile index;
        for (const auto& folder : folders) {
            index = KeyFile::read(folder + "/" + theme + "/index.theme");
            if (!index.isEmpty()) break;
        }
        if (auto found = withIndex(theme, index)) return found;
        for (const auto& parent : index.list("Icon Theme", "Inherits")) {
            if (parent == lastTheme) continue;  // comes after all others
            if (auto found = inTheme(parent)) return found;
        }
        return std::nullopt;
    }

    std::optional<std::string> withIndex(const std::string& theme, const KeyFile& index) const {
        auto names = index.list("Icon Theme", "Directories");
        std::ranges::copy(index.list("Icon Theme", "ScaledDirectories"), std::back_inserter(names));
        names.resize(std::min(names.size(), mostFolders));
        std::multimap<long, std::string> ranked;  // equal ones as the theme names them
        for (const auto& folder : names) {
            const auto facts = iconFolder(index, folder);
            if (facts) ranked.emplace(distance(*facts, points, scale), folder);
        }
        for (const auto& [far, folder] : ranked) {
            for (const auto& base : folders) {
                auto found = fileIn(base + "/" + theme + "/" + folder, name);
                if (found) return found;
            }
        }
        return std::nullopt;
    }
};

IconThemes::IconThemes(Configuration configuration) : configuration_(std::move(configuration)) {}

std::optional<std::string> IconThemes::find(const std::string& name, int points, int scale,
                                            const std::string& first) const {
    if (name.starts_with('/')) {
        return isFile(name) ? std::optional(name) : std::nullopt;
    }
    if (!isPlain(name)) return std::nullopt;
    auto folders = configuration_.folders;
    if (!first.empty()) folders.insert(folders.begin(), first);
    auto plain = name;
    for (const auto ending : endings) {
        if (name.ends_with(ending)) plain.resize(name.size() - ending.size());
    }
    Search search{folders, plain, points, scale};
    if (auto found = search.inTheme(configuration_.theme)) return found;
    if (auto found = search.inTheme(std::string(lastTheme))) return found;
    folders.insert(folders.end(), configuration_.loose.begin(), configuration_.loose.end());
    for (const auto& folder : folders) {
        if (auto found = fileIn(folder, plain)) return found;
    }
    return std::nullopt;
}

IconThemes::Configuration IconThemes::ofUser(const std::string& theme) {
    Configuration configuration{.theme = theme};
    const auto absolute = [](const char* variable, const std::string& otherwise) {
        const char* value = std::getenv(variable);
        return value && value[0] == '/' ? std::string(value) : otherwise;
    };
    const auto home = absolute("HOME", "/");
    const auto data = absolute("XDG_DATA_HOME", home + "/.local/share");
    configuration.folders = {home + "/.icons", data + "/icons",
                             data + "/flatpak/exports/share/icons",
                             "/var/lib/flatpak/exports/share/icons"};
    const char* system = std::getenv("XDG_DATA_DIRS");
    std::istringstream list(system && *system ? system : "/usr/local/share:/usr/share");
    for (std::string folder; std::getline(list, folder, ':');) {
        if (!folder.starts_with('/')) continue;
        configuration.folders.push_back(folder + "/icons");
        configuration.loose.push_back(folder + "/pixmaps");
    }
    configuration.loose.emplace_back("/usr/share/pixmaps");
    return configuration;
}

}  // namespace platform

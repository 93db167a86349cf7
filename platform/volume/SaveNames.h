#pragma once

#include <string>
#include <string_view>

namespace platform {

/// Whether a program that saves `original` keeps or sets aside the old content under `name`: the
/// original name with "~", ".bak" or ".orig" behind it, or a temporary form.
[[nodiscard]] bool isBackupName(std::string_view name, std::string_view original);

/// Forms under which programs keep what they are about to put in a document's place, or lock it.
[[nodiscard]] bool isTemporaryName(std::string_view name);

/// What decides how an object is shown, apart from its own name: its root, and whether it is
/// hidden, in the trash or inside a package. Equal texts mean equally shown. `isPackageName` tells
/// whether a folder of that name is a package.
template <typename IsPackageName>
[[nodiscard]] std::string coverOf(std::string_view root, std::string_view below,
                                  const IsPackageName& isPackageName) {
    std::string cover(root);
    bool isLast = false;
    while (!below.empty()) {
        const auto slash = below.find('/');
        const auto name = below.substr(0, slash);
        isLast = slash == std::string_view::npos;
        below.remove_prefix(isLast ? below.size() : slash + 1);
        if (name == ".Trash") {
            cover += isLast ? "" : "\nt";
        } else if (name.starts_with('.')) {
            cover += "\nh";
        } else if (isPackageName(name)) {
            cover += isLast ? "\nP" : "\np";
        }
    }
    return cover;
}

}  // namespace platform

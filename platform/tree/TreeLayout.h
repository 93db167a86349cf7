#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/QSURL.h"

// The fixed names of the tree and what follows from a place alone: which library and which trash it
// belongs to, whether it has to stay, how it is shown. Text only: the disk is not asked. Paths and
// URLs are presented ones.

namespace platform {

/// The path under which the storage is presented, whatever its folder is called on disk.
inline constexpr std::string_view presentedStoragePath = "/private/var/tidewell/Documents";
/// Below it stand the data containers of applications, each under a name made from its identifier.
inline constexpr std::string_view presentedContainersPath = "/private/var/tidewell/Containers";
/// By itself it stands for the volume of the storage.
inline constexpr std::string_view presentedVolumePath = "/private/var";

/// The name of every library's root: the storage and the folder in each data container.
inline constexpr std::string_view documentsName = "Documents";
/// Of the trash in a library's root.
inline constexpr std::string_view trashName = ".Trash";
/// Of the folder in a library's root that is no item.
inline constexpr std::string_view inboxName = "Inbox";
/// Of the temporary folder in the storage.
inline constexpr std::string_view temporaryFolderName = ".TemporaryLocalFolder";

[[nodiscard]] QSURL temporaryFolderURL();

/// The data container of that application.
[[nodiscard]] QSURL containerURL(std::string_view identifier);
/// The identifier of the application whose data container holds the path or is it.
[[nodiscard]] std::optional<std::string> identifierOfContainerAt(std::string_view path);
/// The root of the library in that data container, native or presented.
[[nodiscard]] QSURL libraryRootInContainer(const QSURL& container);

/// The path up to its first "Documents"; none if it has no such part.
[[nodiscard]] std::optional<QSURL> libraryRootOf(const QSURL& url);
/// The path below the root of the storage or library that holds it, "" for the root itself; none
/// outside all of them.
[[nodiscard]] std::optional<std::string_view> pathInLibrary(std::string_view path);

[[nodiscard]] QSURL trashInLibrary(const QSURL& root);
/// Whether "Documents" directly followed by ".Trash" stands among the components.
[[nodiscard]] bool isInTrash(std::string_view path);

/// Whether no operation may move or remove what is there: a root, a trash, the temporary folder and
/// everything outside the libraries.
[[nodiscard]] bool hasToStay(std::string_view path);

[[nodiscard]] inline bool isHiddenName(std::string_view name) {
    return name.starts_with('.');
}

/// How the names on the way from a folder to a place let the place be shown.
struct Placement {
    enum class Kind : std::uint8_t {
        Itself,    ///< the folder itself
        Shown,     ///<
        InTrash,   ///< the folder's own trash, or in it
        Hidden,    ///< its name, or that of a folder on the way, begins with "."
        InPackage  ///< in a folder that people see as one file
    };
    Kind kind = Kind::Itself;
    /// For InPackage: how much of the path leads to the outermost package.
    std::size_t packageLength = 0;
};

/// The placement of `relative`, a path below a folder. `isPackageName`: whether a folder of that
/// name is a package.
template <typename IsPackageName>
[[nodiscard]] Placement placementOf(std::string_view relative, const IsPackageName& isPackageName) {
    using Kind = Placement::Kind;
    if (relative.empty()) return {};
    for (std::size_t begin = 0;;) {
        const auto end = relative.find('/', begin);
        const auto name = relative.substr(begin, end - begin);
        if (isHiddenName(name)) {
            return {begin == 0 && name == trashName ? Kind::InTrash : Kind::Hidden};
        }
        if (end == std::string_view::npos) return {Kind::Shown};
        if (isPackageName(name)) return {Kind::InPackage, end};
        begin = end + 1;
    }
}

/// A text that is equal for two places exactly where every container shows them alike, apart from
/// their own names: the root, then a line for each name on the way that hides ("h"), that is a
/// trash ("t") or a package ("p"; "P" for the place itself).
template <typename IsPackageName>
[[nodiscard]] std::string placementKey(std::string_view root, std::string_view relative,
                                       const IsPackageName& isPackageName) {
    std::string key(root);
    while (!relative.empty()) {
        const auto slash = relative.find('/');
        const auto name = relative.substr(0, slash);
        const bool isLast = slash == std::string_view::npos;
        relative.remove_prefix(isLast ? relative.size() : slash + 1);
        if (name == trashName) {
            key += isLast ? "" : "\nt";
        } else if (isHiddenName(name)) {
            key += "\nh";
        } else if (isPackageName(name)) {
            key += isLast ? "\nP" : "\np";
        }
    }
    return key;
}

}  // namespace platform

#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/QSError.h"

namespace platform {

/// The three support flags as a file has them; missing where it says nothing or no boolean.
struct SupportFlags {
    std::optional<bool> documentBrowser;
    std::optional<bool> openInPlace;
    std::optional<bool> fileSharing;
};

/// What the registry wants to know of a desktop entry, or of a user's override.
struct DesktopEntry {
    bool isApplication = false;
    bool isHidden = false;     ///< as though it were not there, and none of its name either
    bool isNoDisplay = false;  ///< installed, but in no menu
    std::string name;          ///< in the best language that there is; may be empty
    std::string icon;
    std::string flatpak;                   ///< the identifier of a Flatpak application, else empty
    std::vector<std::string> renamedFrom;  ///< its former desktop-file IDs
    SupportFlags flags;
};

/// The keys of the flags, in both kinds of file.
inline constexpr std::string_view documentBrowserKey = "X-Quenby-SupportsDocumentBrowser";
inline constexpr std::string_view openInPlaceKey = "X-Quenby-SupportsOpenInPlace";
inline constexpr std::string_view fileSharingKey = "X-Quenby-FileSharingEnabled";
inline constexpr std::string_view desktopEntrySuffix = ".desktop";

/// Larger files are no entries.
inline constexpr std::size_t mostEntryBytes = 256UL * 1024;

/// The group "Desktop Entry" of a key file. Any bytes will do; an error for what is no key file, or
/// has no such group. `languages`: names of locales, best first.
[[nodiscard]] Result<DesktopEntry> parseDesktopEntry(std::string_view text,
                                                     const std::vector<std::string>& languages);

/// Whether it can name an application: it names a folder and a file as well.
[[nodiscard]] bool isBundleIdentifier(std::string_view text);

}  // namespace platform

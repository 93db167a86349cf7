#include "platform/registry/DesktopEntry.h"

#include <glib.h>

#include <algorithm>
#include <array>
#include <memory>

namespace platform {

namespace {

constexpr const char* group = "Desktop Entry";

struct Free {
    void operator()(GKeyFile* file) const { g_key_file_free(file); }
    void operator()(char* text) const { g_free(text); }
    void operator()(char** texts) const { g_strfreev(texts); }
    void operator()(GError* error) const { g_error_free(error); }
};
using KeyFile = std::unique_ptr<GKeyFile, Free>;

std::optional<std::string> stringOf(GKeyFile* file, const std::string& key) {
    const std::unique_ptr<char, Free> value(
        g_key_file_get_string(file, group, key.c_str(), nullptr));
    if (!value) return std::nullopt;
    return value.get();
}

std::string localizedOf(GKeyFile* file, const std::string& key,
                        const std::vector<std::string>& languages) {
    for (const auto& language : languages) {
        if (auto value = stringOf(file, key + "[" + language + "]")) return *value;
    }
    return stringOf(file, key).value_or("");
}

std::optional<bool> flagOf(GKeyFile* file, std::string_view key) {
    GError* error = nullptr;
    const bool value = g_key_file_get_boolean(file, group, std::string(key).c_str(), &error) != 0;
    if (!error) return value;
    g_error_free(error);
    return std::nullopt;
}

std::vector<std::string> listOf(GKeyFile* file, const char* key) {
    constexpr std::size_t most = 32;
    std::vector<std::string> values;
    gsize length = 0;
    const std::unique_ptr<char*, Free> list(
        g_key_file_get_string_list(file, group, key, &length, nullptr));
    for (gsize i = 0; list && i < std::min(length, most); ++i) {
        values.emplace_back(list.get()[i]);
    }
    return values;
}

/// Whether the line gives one of our keys, in one of the languages if it is in any.
bool isOfUse(std::string_view line, const std::vector<std::string>& languages) {
    constexpr std::array<std::string_view, 10> keys = {
        "Type",         "Hidden",          "NoDisplay",    "Name",
        "Icon",         "X-Flatpak",       fileSharingKey, "X-Flatpak-RenamedFrom",
        openInPlaceKey, documentBrowserKey};
    const auto end = std::min(line.find_first_of("=[ \t"), line.size());
    if (std::ranges::find(keys, line.substr(0, end)) == keys.end()) return false;
    if (end == line.size() || line[end] != '[') return true;
    const auto locale = line.substr(end + 1, line.find(']', end) - end - 1);
    return std::ranges::find(languages, locale) != languages.end();
}

/// The lines of the group that are of use. Most of an entry is translations into other languages,
/// which would take most of the time and memory.
std::string linesOfUse(std::string_view text, const std::vector<std::string>& languages) {
    std::string lines;
    bool isInGroup = false;
    while (!text.empty()) {
        const auto end = std::min(text.find('\n'), text.size());
        const auto line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        if (line.starts_with('[')) {
            if (isInGroup) break;  // the group comes first, and once
            isInGroup = line.starts_with("[Desktop Entry]");
        } else if (!isOfUse(line, languages)) {
            continue;
        }
        lines.append(line).append("\n");
    }
    return lines;
}

}  // namespace

Result<DesktopEntry> parseDesktopEntry(std::string_view text,
                                       const std::vector<std::string>& languages) {
    const auto lines = linesOfUse(text, languages);
    const KeyFile holder(g_key_file_new());
    auto* file = holder.get();
    GError* raw = nullptr;
    const bool isKeyFile = g_key_file_load_from_data(file, lines.data(), lines.size(),
                                                     G_KEY_FILE_KEEP_TRANSLATIONS, &raw) != 0;
    const std::unique_ptr<GError, Free> error(raw);
    if (!isKeyFile) {
        return std::unexpected(mochaError(QSFileReadCorruptFileError, error->message));
    }
    if (g_key_file_has_group(file, group) == 0) {
        return std::unexpected(
            mochaError(QSFileReadCorruptFileError, "it has no group \"Desktop Entry\""));
    }
    DesktopEntry entry;
    entry.isApplication = stringOf(file, "Type") == "Application";
    entry.isHidden = flagOf(file, "Hidden").value_or(false);
    entry.isNoDisplay = flagOf(file, "NoDisplay").value_or(false);
    entry.name = localizedOf(file, "Name", languages);
    entry.icon = localizedOf(file, "Icon", languages);
    entry.flatpak = stringOf(file, "X-Flatpak").value_or("");
    entry.renamedFrom = listOf(file, "X-Flatpak-RenamedFrom");
    entry.flags = {flagOf(file, documentBrowserKey), flagOf(file, openInPlaceKey),
                   flagOf(file, fileSharingKey)};
    return entry;
}

bool isBundleIdentifier(std::string_view text) {
    constexpr std::size_t most = 240;  // and a suffix make a name
    return !text.empty() && text.size() <= most && !text.starts_with('.') &&
           text.find('/') == std::string_view::npos &&
           std::ranges::none_of(text, [](char c) { return g_ascii_iscntrl(c); }) &&
           g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) != 0;
}

}  // namespace platform

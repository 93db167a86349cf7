#include "platform/registry/UserOverrides.h"

#include <glib.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

namespace platform {

namespace {

std::string pathOf(const std::string& folder, std::string_view identifier) {
    return folder + "/" + std::string(identifier) + std::string(overrideSuffix);
}

}  // namespace

Result<void> writeOverride(const std::string& folder, std::string_view identifier,
                           const SupportFlags& flags) {
    constexpr int onlyMine = 0700;
    if (g_mkdir_with_parents(folder.c_str(), onlyMine) != 0) {
        return std::unexpected(errorFromErrno(errno, folder));
    }
    std::string text = "[Desktop Entry]\n";
    const auto add = [&](std::string_view key, const std::optional<bool>& flag) {
        if (flag) text.append(key).append(*flag ? "=true\n" : "=false\n");
    };
    add(documentBrowserKey, flags.documentBrowser);
    add(openInPlaceKey, flags.openInPlace);
    add(fileSharingKey, flags.fileSharing);
    const auto path = pathOf(folder, identifier);
    constexpr int mode = 0600;
    const auto how = static_cast<GFileSetContentsFlags>(G_FILE_SET_CONTENTS_CONSISTENT |
                                                        G_FILE_SET_CONTENTS_DURABLE);
    if (g_file_set_contents_full(path.c_str(), text.data(), static_cast<gssize>(text.size()), how,
                                 mode, nullptr) == 0) {
        return std::unexpected(errorFromErrno(errno != 0 ? errno : EIO, path));
    }
    return {};
}

Result<void> removeOverride(const std::string& folder, std::string_view identifier) {
    const auto path = pathOf(folder, identifier);
    if (unlink(path.c_str()) != 0 && errno != ENOENT && errno != ENOTDIR) {
        return std::unexpected(errorFromErrno(errno, path));
    }
    return {};
}

}  // namespace platform

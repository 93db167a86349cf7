#include "platform/volume/SaveNames.h"

#include <algorithm>

namespace platform {

bool isTemporaryName(std::string_view name) {
    const auto is = [&](std::string_view begin, std::string_view end, std::size_t least) {
        return name.size() >= least && name.starts_with(begin) && name.ends_with(end);
    };
    const bool isNumber =
        name.size() >= 4 && std::ranges::all_of(name, [](char c) { return c >= '0' && c <= '9'; });
    return (isNumber && name.starts_with("4913")) || is(".#", "", 3) || is(".~lock.", "#", 9) ||
           is("lu", ".tmp", 7) || is(".goutputstream-", "", 16) ||
           (name.starts_with("sed") && name.size() == 9) ||
           (name.starts_with('.') && name.find(".kak.") != std::string_view::npos);
}

bool isBackupName(std::string_view name, std::string_view original) {
    if (isTemporaryName(name)) return true;
    if (!name.starts_with(original)) return false;
    const auto suffix = name.substr(original.size());
    return suffix == "~" || suffix == ".bak" || suffix == ".orig";
}

}  // namespace platform

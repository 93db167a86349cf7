#include "platform/tree/PathRelation.h"

namespace platform {

std::optional<std::string_view> relativePath(std::string_view path, std::string_view folder) {
    if (folder.ends_with('/')) folder.remove_suffix(1);
    if (!path.starts_with(folder)) return std::nullopt;
    path.remove_prefix(folder.size());
    if (path.empty()) return path;
    if (path.front() != '/') return std::nullopt;
    return path.substr(1);
}

bool isAtOrBelow(std::string_view path, std::string_view folder) {
    return relativePath(path, folder).has_value();
}

bool isBelow(std::string_view path, std::string_view folder) {
    const auto relative = relativePath(path, folder);
    return relative && !relative->empty();
}

}  // namespace platform

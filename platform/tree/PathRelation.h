#pragma once

#include <optional>
#include <string_view>

// How two absolute paths relate, component by component. Text only: the disk is not asked.

namespace platform {

/// `path` relative to `folder`, "" for the folder itself; none if it is neither the folder nor
/// below it.
[[nodiscard]] std::optional<std::string_view> relativePath(std::string_view path,
                                                           std::string_view folder);

/// Whether `path` is `folder` or lies below it.
[[nodiscard]] bool isAtOrBelow(std::string_view path, std::string_view folder);
/// Whether `path` lies below `folder` and is not the folder itself.
[[nodiscard]] bool isBelow(std::string_view path, std::string_view folder);

}  // namespace platform

#pragma once

#include <string_view>

namespace platform {

/// Whether a program that saves `original` keeps or sets aside the old content under `name`: the
/// original name with "~", ".bak" or ".orig" behind it, or a temporary form.
[[nodiscard]] bool isBackupName(std::string_view name, std::string_view original);

/// Forms under which programs keep what they are about to put in a document's place, or lock it.
[[nodiscard]] bool isTemporaryName(std::string_view name);

}  // namespace platform

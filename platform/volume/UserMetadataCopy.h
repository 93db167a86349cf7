#pragma once

#include <string>
#include <vector>

#include "platform/files/FileSystem.h"

namespace platform {

/// The attributes of these names (as given, without the "user." of the disk) that the object has,
/// packed into one text; empty where it has none. ESTALE where another object is there.
[[nodiscard]] Result<std::string> readMetadata(const FileSystem& files, const QSURL& url,
                                               const ObjectIdentity& object,
                                               const std::vector<std::string>& names);

/// Puts packed attributes on the object, unless it has any of these names already.
Result<void> applyMetadata(const FileSystem& files, const QSURL& url, const ObjectIdentity& object,
                           const std::string& packed, const std::vector<std::string>& names);

}  // namespace platform

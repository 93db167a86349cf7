#pragma once

#include <cstddef>
#include <string>

#include "platform/foundation/QSData.h"
#include "platform/foundation/QSError.h"

// Small files that are read and replaced whole, by native path. They block for the file system; any
// thread.

namespace platform {

/// The bytes of the file. ENOENT where it is missing, EFBIG where it is larger than `limit`, EINVAL
/// for what is no regular file.
[[nodiscard]] Result<QSData> dataWithContentsOfFile(const std::string& path, std::size_t limit);

/// Replaces the file: afterwards, also after a power cut, it holds either the old bytes or the new
/// ones, and once this has returned, the new ones. Folders that are missing are made with mode
/// 0700, the file with 0600. One writer of a path at a time.
Result<void> writeDataAtomically(QSDataView data, const std::string& path);

}  // namespace platform

#pragma once

#include <cstdint>

namespace tidewell {

/// Reads "/.docid/$dev/changed/$docid/src=$src,dst=$dst": a document ID and the file IDs that it
/// went from and to. The device may be left out. False for any other text; the outputs may have
/// been written then.
[[nodiscard]] bool parseDocIDPath(const char* path, std::int64_t& documentID, std::int64_t& source,
                                  std::int64_t& destination);

}  // namespace tidewell

#pragma once

#include <cstdint>

#include "platform/foundation/QSURL.h"

namespace platform {

/// Which name of an object with several (hard links) the calls of this thread mean. As long as it
/// lives, a look-up of that object by its identifier on this thread answers with this place, and
/// with no place where the object has left it. Look-ups of other objects are not affected. They
/// nest, and end in the opposite order of their beginning.
class PreferredPlace {
  public:
    PreferredPlace(QSURL place, std::uint64_t inode);
    ~PreferredPlace();
    PreferredPlace(const PreferredPlace&) = delete;
    PreferredPlace& operator=(const PreferredPlace&) = delete;

    /// The place that this thread prefers for the object; null where it prefers none.
    [[nodiscard]] static const QSURL* ofObject(std::uint64_t inode);

  private:
    QSURL place_;
    std::uint64_t inode_;
    PreferredPlace* outer_;
};

}  // namespace platform

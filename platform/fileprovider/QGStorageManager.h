#pragma once

#include <cstdint>

#include "platform/foundation/QSError.h"
#include "platform/foundation/QSURL.h"

namespace platform {

/// What the identity service keeps of a document.
struct QGPermanentStorage {
    std::uint64_t fileID = 0;
    std::uint32_t documentID = 0;  ///< 0 where the document has none that is known here
};

/// The front of the identity service that documents are asked for by. Stateless; any thread, calls
/// block for the store.
class QGStorageManager {
  public:
    [[nodiscard]] static QGStorageManager& defaultManager();

    /// The record of the object at the URL, brought up to date with where the object is now. With
    /// `allocateIfNone` a document without an ID gets one, durably.
    Result<QGPermanentStorage> permanentStorageForItemAtURL(const QSURL& url, bool allocateIfNone);
};

}  // namespace platform

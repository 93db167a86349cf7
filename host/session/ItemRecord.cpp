#include "host/session/ItemRecord.h"

#include "platform/types/TypeRegistry.h"

namespace host {

bool ItemRecord::isFolder() const {
    return typeIdentifier == platform::folderTypeIdentifier;
}

}  // namespace host

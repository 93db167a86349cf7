#include "host/ItemRecord.h"

#include "platform/fileprovider/Platform.h"

namespace host {

bool ItemRecord::isFolder() const {
    return typeIdentifier == platform::folderTypeIdentifier;
}

}  // namespace host

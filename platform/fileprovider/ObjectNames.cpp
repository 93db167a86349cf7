#include "platform/fileprovider/ObjectNames.h"

#include <utility>

#include "platform/fileprovider/Platform.h"
#include "platform/tree/TreeLayout.h"
#include "platform/volume/PreferredPlace.h"

namespace platform {

Result<ObjectNames> namesOfObject(const QSURL& url) {
    const auto places = Platform::current().volume().placesOfObjectAt(url);
    if (!places) return std::unexpected(places.error());
    ObjectNames names;
    for (const auto& place : *places) {
        (isInTrash(place.path()) ? names.inTrash : names.outsideTrash).push_back(place);
    }
    return names;
}

Result<std::shared_ptr<void>> preferPlace(const QSURL& place) {
    const auto attributes = Platform::current().files().freshAttributes(place);
    if (!attributes) return std::unexpected(attributes.error());
    return std::make_shared<PreferredPlace>(place, (*attributes)->identity.inode);
}

}  // namespace platform

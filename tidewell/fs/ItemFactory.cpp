#include "tidewell/fs/ItemFactory.h"

#include "tidewell/identity/QSURL+TWPFileObjectIdentifier.h"

namespace tidewell {

std::shared_ptr<LocalItem> ItemFactory::makeItem(const QSURL& url) {
    const auto slash = url.path().rfind('/');
    const std::string_view folder(url.path().data(), slash);
    auto known = parents_.find(folder);
    if (known == parents_.end()) {
        known =
            parents_.emplace(folder, itemIdentifier(url.URLByDeletingLastPathComponent())).first;
    }
    return LocalItem::initWithURL(url, {.parentItemID = known->second});
}

}  // namespace tidewell

#include "tidewell/fs/ItemFactory.h"

#include "platform/fileprovider/Platform.h"
#include "tidewell/identity/QSURL+TWPFileObjectIdentifier.h"

namespace tidewell {

Result<std::shared_ptr<LocalItem>> ItemFactory::makeItem(const QSURL& url) {
    const auto attributes = Platform::current().files().attributes(url);
    if (!attributes || (*attributes)->parent.inode == 0) return LocalItem::findAtURL(url);
    const auto inode = (*attributes)->parent.inode;
    auto known = parents_.find(inode);
    if (known == parents_.end()) {
        auto parent = findParentIdentifier(url);
        if (!parent) return std::unexpected(std::move(parent.error()));
        known = parents_.emplace(inode, std::move(*parent)).first;
    }
    return LocalItem::findAtURL(url, {.parentItemID = known->second});
}

}  // namespace tidewell

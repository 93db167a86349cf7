#include "tidewell/fs/ItemFactory.h"

#include "platform/fileprovider/Platform.h"
#include "tidewell/identity/QSURL+TWPFileObjectIdentifier.h"

namespace tidewell {

std::shared_ptr<LocalItem> ItemFactory::makeItem(const QSURL& url) {
    const auto attributes = Platform::current().files().attributes(url);
    if (!attributes || (*attributes)->parent.inode == 0) return LocalItem::initWithURL(url);
    const auto [known, isNew] = parents_.try_emplace((*attributes)->parent.inode);
    if (isNew) known->second = parentIdentifier(url);
    return LocalItem::initWithURL(url, {.parentItemID = known->second});
}

}  // namespace tidewell

#include "tidewell/items/LocalAppLibraryItem.h"

#include <array>

#include "platform/fileprovider/URLOperations.h"
#include "platform/foundation/fatalError.h"
#include "platform/tree/TreeLayout.h"
#include "tidewell/common/Logging.h"
#include "tidewell/identity/TWPFileObjectIdentifier.h"

namespace tidewell {

namespace {

[[noreturn]] void failUnimplemented(std::string_view initialiser) {
    fatalError("use of unimplemented initialiser '" + std::string(initialiser) +
               "' for class 'Tidewell.LocalAppLibraryItem'");
}

}  // namespace

std::shared_ptr<LocalItem> LocalAppLibraryItem::initWithURL(
    const QSURL& /*url*/, const Custom& /*custom*/, bool /*hasBeaconDomainIdentifier*/,
    const std::optional<std::string>& /*bundleIdentifier*/) {
    failUnimplemented("initWithURL");
}

std::shared_ptr<LocalItem> LocalAppLibraryItem::initWithFileIdentifier(std::uint64_t /*fileID*/) {
    failUnimplemented("initWithFileIdentifier");
}

std::shared_ptr<LocalAppLibraryItem> LocalAppLibraryItem::initFrom(const QLBundleProxy& bundle) {
    if (!bundle.dataContainerURL) {
        logError("can't create an app library item without a data container URL");
        return nullptr;
    }
    const auto url = libraryRootInContainer(*bundle.dataContainerURL);
    const Custom custom{.itemID = appLibraryIdentifier(bundle),
                        .parentItemID = std::string(QSFileProviderRootContainerItemIdentifier),
                        .filename = bundle.localizedName()};
    std::shared_ptr<LocalAppLibraryItem> item(new LocalAppLibraryItem);
    const auto isBuilt = item->build(url, custom, false, bundle.bundleIdentifier);
    if (!isBuilt.value_or(false)) return nullptr;
    if (item->childItemCount()) item->leaveOutHiddenEntries(url);
    return item;
}

void LocalAppLibraryItem::leaveOutHiddenEntries(const QSURL& url) {
    constexpr std::array<std::string_view, 2> hidden = {inboxName, trashName};
    // One reading for the count and for what is taken off it, so that no race comes between.
    const auto contents = contentsOfFolder(url, hidden);
    if (!contents) return;
    auto count = contents->linkCount - 2;
    for (const bool isPresent : contents->isPresent) {
        if (!isPresent) continue;
        if (count == 0) fatalError("an app library holds fewer entries than it hides");
        --count;
    }
    setChildItemCount(static_cast<std::uint16_t>(count));
}

}  // namespace tidewell

// The removal of what was trashed long ago.
#include "platform/dispatch/Queue.h"
#include "platform/fileprovider/ObjectNames.h"
#include "platform/fileprovider/Platform.h"
#include "platform/foundation/QSKeyedUnarchiver.h"
#include "platform/tree/TreeLayout.h"
#include "tidewell/applibraries/TWPAppLibraryManager.h"
#include "tidewell/common/LocalFileProviderError.h"
#include "tidewell/common/Logging.h"
#include "tidewell/common/Utilities.h"
#include "tidewell/fs/DirectoryWalk.h"
#include "tidewell/identity/QSURL+TWPFileObjectIdentifier.h"
#include "tidewell/items/LocalItem.h"
#include "tidewell/items/UserMetadata.h"
#include "tidewell/provider/LocalFileProvider.h"
#include "tidewell/provider/TrashRecords.h"

namespace tidewell {

namespace {

/// The trash of the storage, then those of the libraries; each need not exist.
std::vector<QSURL> trashURLs() {
    std::vector<QSURL> urls{
        trashInLibrary(QSFileProviderManager::defaultManager().documentStorageURL())};
    for (const auto& root : TWPAppLibraryManager::rootURLsForAppLibraries()) {
        urls.push_back(trashInLibrary(root));
    }
    return urls;
}

/// The entries of every trash, one after another.
void forEachTrashed(const std::function<void(const QSURL& url)>& visit) {
    constexpr WalkOptions options = walkSkipsHiddenEntries | walkDescendsIntoNothing;
    for (const auto& trash : trashURLs()) {
        DirectoryWalk walk(
            {{trash, options}}, [](std::string_view, WalkOptions inherited) { return inherited; },
            DirectoryWalk::Emits::everything);
        // A trash that is not there or cannot be read has been logged and holds nothing to remove.
        (void)walk.walk(0, walkWithoutPageLimit, [&](const QSURL& url) -> Result<void> {
            visit(url);
            return {};
        });
    }
}

/// When it was trashed; none if that is missing or unreadable, after a log line that ends with
/// `consequence`.
std::optional<QSDate> trashDateOf(const QSURL& url, std::string_view consequence) {
    const auto log = [&](std::string_view what) {
        logDebug([&] {
            return "can't " + std::string(what) + " for URL " + quoted(url.description()) +
                   std::string(consequence);
        });
    };
    const auto record = trashRecordOf(url);
    if (record && record->isDecisive) return record->date;
    const auto bytes = initWithValueOfXattr(LocalItem::xattrTrashDateName(), url);
    if (bytes) {
        const auto root = unarchivedObjectOfClasses({ArchiveClass::Date}, *bytes);
        if (root && root->asDate()) return *root->asDate();
    }
    if (record) return record->date;
    log(bytes ? "unarchive xattr data" : "find trash date");
    return std::nullopt;
}

/// Calls its handler on a queue of its own when its last holder releases it.
class DispatchGroup {
  public:
    explicit DispatchGroup(std::move_only_function<void()> handler)
        : handler_(std::move(handler)) {}
    ~DispatchGroup() { SerialQueue("tidewell.auto-delete.notifier").async(std::move(handler_)); }
    DispatchGroup(const DispatchGroup&) = delete;
    DispatchGroup& operator=(const DispatchGroup&) = delete;

  private:
    std::move_only_function<void()> handler_;
};

}  // namespace

Result<std::vector<QSFileProviderItemIdentifier>>
LocalFileProvider::trashContainerItemIdentifiers() {
    std::vector<QSFileProviderItemIdentifier> identifiers;
    for (const auto& trash : trashURLs()) {
        const auto attributes = Platform::current().files().attributes(trash);
        if (!attributes && attributes.error().code == ENOENT) continue;
        if (!attributes) return std::unexpected(attributes.error());
        if (!(*attributes)->isDirectory()) continue;
        auto identifier = itemIdentifier(trash);
        if (!identifier)
            return std::unexpected(makeError(LocalFileProviderError::itemLookupFailed));
        identifiers.push_back(std::move(*identifier));
    }
    return identifiers;
}

void LocalFileProvider::_removeTrashedItemsOlderThanDate(
    const QSDate& date, std::move_only_function<void()> completionHandler) {
    const LogSection section([&] { return "remove trashed items older than " + date.rfc3339(); });
    const auto group = std::make_shared<DispatchGroup>(std::move(completionHandler));
    forEachTrashed([&](const QSURL& url) {
        const auto trashed = trashDateOf(url, "; set current date");
        if (!trashed) return dateNow(url);
        if (!(*trashed < date)) return;
        const auto identifier = _persistentIdentifierForItemAt(url);
        if (!identifier) {
            return logError(
                [&] { return "identifier lookup failed for URL " + quoted(url.description()); });
        }
        logDebug([&] {
            return "item " + *identifier + " was trashed before reference date, let's remove it";
        });
        // This entry, wherever else the item has a name.
        const auto preferred = preferPlace(url);
        if (!preferred) {
            return logError([&] {
                return "can't remove item " + *identifier + "; " + preferred.error().description();
            });
        }
        (void)deleteItemWithIdentifier(
            *identifier, [identifier = *identifier, group](const std::optional<QSError>& error) {
                if (!error) return;
                logError([&] {
                    return "can't remove item " + identifier + "; " + error->description();
                });
            });
    });
    logDebug("wait until all deletions are complete");
}

Result<void> LocalFileProvider::dateArrivalsInTrash() {
    // The record of what left the trash is removed when that is seen.
    if (auto seen = Platform::current().volume().waitUntilSeen(); !seen) return seen;
    forEachTrashed([](const QSURL& url) {
        if (!trashRecordOf(url)) dateNow(url);
    });
    return {};
}

std::vector<ItemRef> LocalFileProvider::itemsTrashedBeforeDate(const QSDate& date) {
    std::vector<ItemRef> items;
    forEachTrashed([&](const QSURL& url) {
        const auto trashed = trashDateOf(url, "");
        if (!trashed || !(*trashed < date)) return;
        if (auto item = LocalItem::initWithURL(url)) items.push_back(std::move(item));
    });
    return items;
}

}  // namespace tidewell

// The removal of what has lain in the trash for long.
#include "platform/dispatch/Queue.h"
#include "platform/fileprovider/Platform.h"
#include "platform/foundation/QSKeyedUnarchiver.h"
#include "tidewell/applibraries/TWPAppLibraryManager.h"
#include "tidewell/common/Logging.h"
#include "tidewell/common/Utilities.h"
#include "tidewell/fs/DirectoryWalk.h"
#include "tidewell/items/LocalItem.h"
#include "tidewell/provider/LocalFileProvider.h"
#include "tidewell/provider/TrashRecords.h"

namespace tidewell {

namespace {

/// The entries of every trash, one after another.
void forEachTrashed(const std::function<void(const QSURL& url)>& visit) {
    std::vector<QSURL> roots{QSFileProviderManager::defaultManager().documentStorageURL()};
    for (auto& root : TWPAppLibraryManager::rootURLsForAppLibraries()) {
        roots.push_back(std::move(root));
    }
    constexpr WalkOptions options = walkSkipsHiddenEntries | walkDescendsIntoNothing;
    for (const auto& root : roots) {
        DirectoryWalk walk(
            {{root.URLByAppendingPathComponent(".Trash"), options}},
            [](std::string_view, WalkOptions inherited) { return inherited; },
            DirectoryWalk::Emits::everything);
        // A trash that is not there or cannot be read has been logged and holds nothing to remove.
        (void)walk.walk(0, walkWithoutPageLimit, [&](const QSURL& url) -> Result<void> {
            visit(url);
            return {};
        });
    }
}

/// When it was trashed; none where that is missing or unreadable, after a log line that ends with
/// `consequence`.
std::optional<QSDate> trashDateOf(const QSURL& url, std::string_view consequence) {
    const auto log = [&](std::string_view what) {
        logDebug([&] {
            return "can't " + std::string(what) + " for URL " + quoted(url.description()) +
                   std::string(consequence);
        });
    };
    const auto bytes = initWithValueOfXattr(LocalItem::xattrTrashDateName(), url);
    if (!bytes) {
        log("find trash date");
        return std::nullopt;
    }
    const auto root = unarchivedObjectOfClasses({ArchiveClass::Date}, *bytes);
    if (root && root->asDate()) return *root->asDate();
    log("unarchive xattr data");
    return std::nullopt;
}

/// Calls its handler on a queue of its own when the last of those who hold it lets go.
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

void LocalFileProvider::_removeTrashedItemsOlderThanDate(
    const QSDate& date, std::move_only_function<void()> completionHandler) {
    const LogSection section([&] { return "remove trashed items older than " + date.rfc3339(); });
    const auto group = std::make_shared<DispatchGroup>(std::move(completionHandler));
    forEachTrashed([&](const QSURL& url) {
        const auto trashed = trashDateOf(url, "; set current date");
        if (!trashed) return setTrashDate({url}, Platform::current().volume().clock().stamp());
        if (!(*trashed < date)) return;
        const auto identifier = _persistentIdentifierForItemAt(url);
        if (!identifier) {
            return logError(
                [&] { return "identifier lookup failed for URL " + quoted(url.description()); });
        }
        logDebug([&] {
            return "item " + *identifier + " was trashed before reference date, let's remove it";
        });
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

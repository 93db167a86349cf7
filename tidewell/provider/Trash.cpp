// Trashing, putting back and deleting items.
#include "platform/fileprovider/Mutations.h"
#include "platform/fileprovider/Platform.h"
#include "platform/fileprovider/QSFileProviderError.h"
#include "platform/tree/TreeLayout.h"
#include "tidewell/common/Logging.h"
#include "tidewell/common/Utilities.h"
#include "tidewell/identity/QSURL+TWPFileObjectIdentifier.h"
#include "tidewell/items/LocalAppLibraryItem.h"
#include "tidewell/items/LocalItem.h"
#include "tidewell/provider/LocalFileProvider.h"
#include "tidewell/provider/OperationErrors.h"
#include "tidewell/provider/TrashRecords.h"

namespace tidewell {

namespace {

bool isReachableFolder(const QSURL& url) {
    const auto attributes = Platform::current().files().freshAttributes(url);
    return attributes && (*attributes)->isDirectory();
}

}  // namespace

std::shared_ptr<QSProgress> LocalFileProvider::trashItemWithIdentifier(
    const QSFileProviderItemIdentifier& identifier, ItemCompletionHandler completionHandler) {
    const LogSection section([&] { return "trash item " + quoted(identifier); });
    const auto refuse = [&](QSError error) {
        completionHandler(std::unexpected(std::move(error)));
        return nullptr;
    };
    const auto url = _urlForItemWithPersistentIdentifier(identifier);
    if (!url) return refuse(QPItemNotFoundError(identifier));
    const auto trash = trashFolderFor(*url);
    if (!trash) return refuse(trash.error());
    if (auto made = Platform::current().files().makeFolder(*trash); !made) {
        return refuse(std::move(made.error()));
    }
    // Without one for the trash the item could not be answered once it has been moved.
    if (auto found = findItemIdentifier(*trash); !found) return refuse(std::move(found.error()));
    return qp_trashUnderFolder(
        *url, *trash,
        [identifier, formerURL = *url,
         handler = std::move(completionHandler)](Result<TrashedObject> trashed) mutable {
            if (!trashed) {
                return handler(
                    std::unexpected(normalisedError(std::move(trashed.error()), identifier)));
            }
            writeTrashRecord(*trashed, formerURL);
            handler(itemForMoved(formerURL, trashed->url));
        });
}

std::optional<QSURL> LocalFileProvider::untrashDestination(
    const LocalItem& item, const std::optional<QSFileProviderItemIdentifier>& parentIdentifier) {
    const auto parent =
        parentIdentifier ? _urlForItemWithPersistentIdentifier(*parentIdentifier) : std::nullopt;
    if (parent && !isInTrash(parent->path())) return parent;
    if (parent) {
        logDebug([&] {
            return "can't use provided parent item " + *parentIdentifier +
                   " because it's trashed; " + parent->path();
        });
    }
    const auto putBack = item.putBackURL();
    if (!putBack) {
        logDebug("no putback url");
    } else if (isInTrash(putBack->path()) || !isReachableFolder(*putBack)) {
        logDebug([&] { return "putback url is not reachable; " + putBack->description(); });
    } else {
        logDebug([&] { return "putback url is " + putBack->description(); });
        return putBack;
    }
    const auto library = item.fetchAppLibraryItem();
    if (!library) return std::nullopt;
    logDebug([&] { return "use " + library->itemIdentifier() + "'s root as recover location"; });
    return library->fileURL();
}

std::shared_ptr<QSProgress> LocalFileProvider::untrashItemWithIdentifier(
    const QSFileProviderItemIdentifier& identifier,
    const std::optional<QSFileProviderItemIdentifier>& toParentItemIdentifier,
    ItemCompletionHandler completionHandler) {
    const LogSection section([&] { return "untrash item " + quoted(identifier); });
    const auto refuse = [&](QSError error) {
        completionHandler(std::unexpected(std::move(error)));
        return nullptr;
    };
    const auto url = _urlForItemWithPersistentIdentifier(identifier);
    if (!url) return refuse(QPItemNotFoundError(identifier));
    const auto found = itemForIdentifier(identifier);
    if (!found) return refuse(found.error());
    if (!(*found)->isTrashed()) {
        logDebug("item is not in trash");
        return refuse(QPInvalidParameterError("itemIdentifier", identifier));
    }
    // Every item of this provider is a LocalItem.
    const auto& item = static_cast<const LocalItem&>(**found);
    const auto destination = untrashDestination(item, toParentItemIdentifier);
    if (!destination) {
        logDebug([&] { return "can't compute valid parent URL for " + identifier; });
        return refuse(QPInvalidParameterError("itemIdentifier", identifier));
    }
    return qp_reparentUnderFolder(
        *url, *destination, true,
        [identifier, formerURL = *url,
         handler = std::move(completionHandler)](Result<QSURL> newURL) mutable {
            if (!newURL) {
                return handler(
                    std::unexpected(normalisedError(std::move(newURL.error()), identifier)));
            }
            logDebug("removing trash date xattr");
            (void)setTrashDate({*newURL}, std::nullopt);
            const auto former =
                std::static_pointer_cast<const FileAttributes>(formerURL.attachment());
            if (former) {
                Platform::current().volume().trash().remove(formerURL.path(), former->identity);
            }
            // What the URL keeps is from before.
            handler(itemForMoved(formerURL, QSURL::fileURLWithPath(newURL->path())));
        });
}

std::shared_ptr<QSProgress> LocalFileProvider::deleteItemWithIdentifier(
    const QSFileProviderItemIdentifier& identifier, CompletionHandler completionHandler) {
    const LogSection section([&] { return "delete item " + quoted(identifier); });
    const auto url = _urlForItemWithPersistentIdentifier(identifier);
    if (!url) {
        completionHandler(QPItemNotFoundError(identifier));
        return nullptr;
    }
    return qp_deleteWithCompletionHandler(
        *url,
        [identifier, handler = std::move(completionHandler)](std::optional<QSError> error) mutable {
            if (error) error = normalisedError(std::move(*error), identifier);
            handler(std::move(error));
        });
}

}  // namespace tidewell

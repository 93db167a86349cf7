// Creating, importing, renaming and moving items.
#include "platform/fileprovider/Mutations.h"

#include "platform/fileprovider/Platform.h"
#include "platform/fileprovider/QSFileProviderError.h"
#include "tidewell/common/LocalFileProviderError.h"
#include "tidewell/common/Logging.h"
#include "tidewell/common/Utilities.h"
#include "tidewell/items/LocalItem.h"
#include "tidewell/provider/LocalFileProvider.h"
#include "tidewell/provider/OperationErrors.h"

namespace tidewell {

namespace {

/// An object that was moved keeps its identifier: with it, that need not be asked for, and so not
/// wait for what happened to be seen.
void keepIdentifier(const QSURL& formerURL, const QSURL& newURL) {
    const auto former = std::static_pointer_cast<const FileAttributes>(formerURL.attachment());
    const auto now = Platform::current().files().attributes(newURL);
    if (!former || !now || (*now)->identity != former->identity) return;
    for (const auto key : {QSResourceKey::FileID, QSResourceKey::DocumentIdentifier}) {
        auto kept = formerURL.cachedResourceValue(key);
        if (kept.index() != 0) newURL.setCachedResourceValue(key, std::move(kept));
    }
}

}  // namespace

QSError normalisedError(QSError error, const std::string& identifier) {
    if (error.domain == QPErrorDomain && error.code == QPItemNotFoundErrorCode &&
        !identifier.empty()) {
        return QPItemNotFoundError(identifier);
    }
    if (error.domain != QSMochaErrorDomain || error.code != QSFileWriteFileExistsError) {
        return error;
    }
    const auto colliding = error.userInfo.find(qp_collidingURLKey);
    if (colliding == error.userInfo.end()) return error;
    const auto item = LocalItem::initWithURL(QSURL::fileURLWithPath(colliding->second));
    return item ? fileProviderErrorForCollisionWithItem(*item) : error;
}

Result<ItemRef> LocalFileProvider::itemForResult(const QSURL& url) {
    ItemRef item;
    const auto identifier = _persistentIdentifierForItemAt(url, &item);
    if (item) return item;
    auto found = LocalItem::findAtURL(url, {.itemID = identifier});
    // The object is where it was to be, but a number for it or its folder could not be stored.
    if (!found) return std::unexpected(std::move(found.error()));
    if (*found) return *found;
    if (!identifier) {
        logError([&] { return "identifier lookup failed for URL " + quoted(url.description()); });
    } else {
        logError([&] { return "can't create item for URL " + quoted(url.description()); });
    }
    return std::unexpected(makeError(LocalFileProviderError::itemLookupFailed));
}

Result<ItemRef> LocalFileProvider::itemForMoved(const QSURL& formerURL, const QSURL& url) {
    keepIdentifier(formerURL, url);
    return itemForResult(url);
}

std::move_only_function<void(Result<QSURL>)> LocalFileProvider::completingWithItem(
    std::string identifier, ItemCompletionHandler completionHandler, std::optional<QSURL> formerURL,
    std::string destination) {
    return [identifier = std::move(identifier), formerURL = std::move(formerURL),
            destination = std::move(destination),
            handler = std::move(completionHandler)](Result<QSURL> url) mutable {
        if (url) return handler(formerURL ? itemForMoved(*formerURL, *url) : itemForResult(*url));
        const bool isDestination =
            !destination.empty() && url.error().userInfo.contains(qp_isDestinationKey);
        handler(std::unexpected(
            normalisedError(std::move(url.error()), isDestination ? destination : identifier)));
    };
}

std::shared_ptr<QSProgress> LocalFileProvider::importDocumentAtURL(
    const QSURL& url, const QSFileProviderItemIdentifier& toParentItemIdentifier,
    ItemCompletionHandler completionHandler) {
    const LogSection section([&] {
        return "import document at " + quoted(url.description()) + " to parent " +
               quoted(toParentItemIdentifier);
    });
    if (toParentItemIdentifier == QSFileProviderRootContainerItemIdentifier) {
        completionHandler(std::unexpected(errorFileWriteNoPermission()));
        return nullptr;
    }
    const auto parent = throwingURLForItem(toParentItemIdentifier);
    if (!parent) {
        completionHandler(std::unexpected(parent.error()));
        return nullptr;
    }
    return qp_importUnderFolder(
        url, *parent, completingWithItem(toParentItemIdentifier, std::move(completionHandler)));
}

void LocalFileProvider::createDirectoryWithName(
    std::string_view name, const QSFileProviderItemIdentifier& inParentItemIdentifier,
    ItemCompletionHandler completionHandler) {
    const LogSection section([&] {
        return "create directory with name " + quoted(name) + " in parent " +
               quoted(inParentItemIdentifier);
    });
    if (inParentItemIdentifier == QSFileProviderRootContainerItemIdentifier) {
        return completionHandler(std::unexpected(errorFileWriteNoPermission()));
    }
    const auto parent = throwingURLForItem(inParentItemIdentifier);
    if (!parent) return completionHandler(std::unexpected(parent.error()));
    qp_createSubFolder(*parent, name,
                       completingWithItem(inParentItemIdentifier, std::move(completionHandler)));
}

void LocalFileProvider::renameItemWithIdentifier(const QSFileProviderItemIdentifier& identifier,
                                                 std::string_view toName,
                                                 ItemCompletionHandler completionHandler) {
    const LogSection section(
        [&] { return "rename item " + quoted(identifier) + " to name " + quoted(toName); });
    const auto url = throwingURLForItem(identifier);
    if (!url) return completionHandler(std::unexpected(url.error()));
    qp_renameWithNewName(*url, toName,
                         completingWithItem(identifier, std::move(completionHandler), *url));
}

std::shared_ptr<QSProgress> LocalFileProvider::reparentItemWithIdentifier(
    const QSFileProviderItemIdentifier& identifier,
    const QSFileProviderItemIdentifier& toParentItemWithIdentifier,
    const std::optional<std::string>& newName, ItemCompletionHandler completionHandler) {
    const LogSection section([&] {
        return "move item " + quoted(identifier) + " to parent " +
               quoted(toParentItemWithIdentifier);
    });
    const auto refuse = [&](QSError error) {
        completionHandler(std::unexpected(std::move(error)));
        return nullptr;
    };
    if (toParentItemWithIdentifier == QSFileProviderRootContainerItemIdentifier) {
        return refuse(errorFileWriteNoPermission());
    }
    const auto url = _urlForItemWithPersistentIdentifier(identifier);
    if (!url) return refuse(QPItemNotFoundError(identifier));
    const auto parent = _urlForItemWithPersistentIdentifier(toParentItemWithIdentifier);
    if (!parent) return refuse(QPItemNotFoundError(toParentItemWithIdentifier));
    return qp_reparentUnderFolder(*url, *parent, newName,
                                  completingWithItem(identifier, std::move(completionHandler), url,
                                                     toParentItemWithIdentifier));
}

}  // namespace tidewell

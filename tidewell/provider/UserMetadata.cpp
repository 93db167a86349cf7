// What the user keeps with an item: each value lies in an extended attribute of the item's file, so
// that it goes where the file goes.
#include "platform/fileprovider/Platform.h"
#include "platform/fileprovider/QPTag.h"
#include "platform/fileprovider/QSFileProviderError.h"
#include "platform/foundation/QSKeyedArchiver.h"
#include "tidewell/common/Logging.h"
#include "tidewell/common/Utilities.h"
#include "tidewell/identity/TWPFileObjectIdentifier.h"
#include "tidewell/items/LocalItem.h"
#include "tidewell/provider/LocalFileProvider.h"

namespace tidewell {

namespace {

/// The value as it is kept; none if there is none to keep or it cannot be archived, which both
/// remove the attribute.
std::optional<QSData> archived(const std::optional<QSPropertyList>& value) {
    if (!value) return std::nullopt;
    auto bytes = archivedDataWithRootObject(*value);
    if (!bytes) return std::nullopt;
    return std::move(*bytes);
}

/// The labels in the order given; none if the data is missing or no list of tags.
QSPropertyList::Array labels(const std::optional<QSData>& tagData) {
    QSPropertyList::Array labels;
    const auto tags = tagData ? QPGetTagsFromTagsData(*tagData) : std::nullopt;
    if (!tags) return labels;
    labels.reserve(tags->size());
    for (const auto& tag : *tags) labels.emplace_back(tag.label);
    return labels;
}

Result<void> writeAttribute(const QSURL& url, std::string_view name,
                            const std::optional<QSData>& value) {
    const auto file = Platform::current().files().openForExtendedAttributes(url);
    if (file) return setOrRemoveXattr(file->get(), name, value);
    // What keeps no attributes has none to remove.
    if (!value && file.error().code == ENOTSUP) return {};
    return std::unexpected(file.error());
}

void logFailure(std::string_view name, const QSURL& url, const QSError& error) {
    logError([&] {
        return "can't set xattr " + std::string(name) + " on " + url.description() + "; " +
               error.description();
    });
}

}  // namespace

void LocalFileProvider::setLastUsedDate(const std::optional<QSDate>& date,
                                        const QSFileProviderItemIdentifier& forItemIdentifier,
                                        ItemCompletionHandler completionHandler) {
    if (isAppLibraryIdentifier(forItemIdentifier)) {
        completionHandler(
            std::unexpected(QPInvalidParameterError("itemIdentifier", forItemIdentifier)));
        return;
    }
    const LogSection section([&] {
        return date ? "set last used date " + quoted(date->rfc3339()) + " to item " +
                          quoted(forItemIdentifier)
                    : "clearing last used date for item " + quoted(forItemIdentifier);
    });
    const auto url = throwingURLForItem(forItemIdentifier);
    if (!url) return completionHandler(std::unexpected(url.error()));
    const auto name = LocalItem::xattrLastUsedDateName();
    // A document on a read-only disk is used all the same, so this does not fail the operation.
    const auto written = writeAttribute(
        *url, name, archived(date ? std::optional<QSPropertyList>(*date) : std::nullopt));
    if (!written) logFailure(name, *url, written.error());
    completionHandler(itemForIdentifier(forItemIdentifier));
}

void LocalFileProvider::setTagData(const std::optional<QSData>& tagData,
                                   const QSFileProviderItemIdentifier& forItemIdentifier,
                                   ItemCompletionHandler completionHandler) {
    const LogSection section([&] { return "set tag data to item " + quoted(forItemIdentifier); });
    const auto url = _urlForItemWithPersistentIdentifier(forItemIdentifier);
    if (!url) {
        logError("can't find URL for item; " + forItemIdentifier);
        return completionHandler(std::unexpected(QPItemNotFoundError(forItemIdentifier)));
    }
    const auto name = LocalItem::xattrTagDataName();
    const auto written = writeAttribute(*url, name, archived(labels(tagData)));
    if (!written) {
        logError([&] {
            return "can't set xattr " + std::string(name) + "; " + written.error().description();
        });
        return completionHandler(std::unexpected(written.error()));
    }
    completionHandler(itemForIdentifier(forItemIdentifier));
}

void LocalFileProvider::setFavoriteRank(std::optional<std::uint64_t> rank,
                                        const QSFileProviderItemIdentifier& forItemIdentifier,
                                        ItemCompletionHandler completionHandler) {
    const LogSection section([&] {
        return "set favorite rank " + quoted(rank ? std::to_string(*rank) : "nil") + " to item " +
               quoted(forItemIdentifier);
    });
    const auto url = throwingURLForItem(forItemIdentifier);
    if (!url) return completionHandler(std::unexpected(url.error()));
    const auto name = LocalItem::xattrFavoriteRankName();
    const auto written = writeAttribute(
        *url, name, archived(rank ? std::optional<QSPropertyList>(*rank) : std::nullopt));
    if (!written) {
        logFailure(name, *url, written.error());
        return completionHandler(std::unexpected(written.error()));
    }
    completionHandler(itemForIdentifier(forItemIdentifier));
}

}  // namespace tidewell

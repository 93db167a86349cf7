#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/fileprovider/QSFileProviderEnumerator.h"
#include "platform/fileprovider/QSFileProviderItem.h"
#include "platform/foundation/QSProgress.h"

namespace platform {

/// Of a picture, in points.
struct QSSize {
    double width = 0;
    double height = 0;
};

/// What the host instantiates and calls for every request. The host calls on threads of its own,
/// several at a time; every operation may block for the file system and the volume service.
class QSFileProviderExtension {
  public:
    using CompletionHandler = std::move_only_function<void(std::optional<QSError>)>;
    /// Called once, on any thread, maybe before the operation returns: the item as it is now.
    using ItemCompletionHandler = std::move_only_function<void(Result<ItemRef>)>;

    virtual ~QSFileProviderExtension() = default;

    [[nodiscard]] virtual std::optional<QSURL> URLForItemWithPersistentIdentifier(
        const QSFileProviderItemIdentifier& identifier) = 0;
    [[nodiscard]] virtual std::optional<QSFileProviderItemIdentifier>
    persistentIdentifierForItemAtURL(const QSURL& url) = 0;
    [[nodiscard]] virtual Result<ItemRef> itemForIdentifier(
        const QSFileProviderItemIdentifier& identifier) = 0;
    [[nodiscard]] virtual Result<std::shared_ptr<QSFileProviderEnumerator>>
    enumeratorForContainerItemIdentifier(const QSFileProviderItemIdentifier& identifier) = 0;
    /// The containers that hold what the user has trashed, of all roots; the working set shows what
    /// is directly in them. Fails where one of them cannot be identified. Extensions that do not
    /// say otherwise have none.
    [[nodiscard]] virtual Result<std::vector<QSFileProviderItemIdentifier>>
    trashContainerItemIdentifiers();

    virtual void providePlaceholderAtURL(const QSURL& url, CompletionHandler completionHandler) = 0;
    virtual void startProvidingItemAtURL(const QSURL& url, CompletionHandler completionHandler) = 0;
    virtual void stopProvidingItemAtURL(const QSURL& url) = 0;
    virtual void itemChangedAtURL(const QSURL& url) = 0;

    // What changes the tree. Each may return before it is done and calls the completion handler
    // once, on a thread of its choice, with the item as it is then. A progress, where there is one,
    // is of that call. Extensions that do not say otherwise do none of it (ENOTSUP).
    virtual std::shared_ptr<QSProgress> importDocumentAtURL(
        const QSURL& url, const QSFileProviderItemIdentifier& toParentItemIdentifier,
        ItemCompletionHandler completionHandler);
    virtual void createDirectoryWithName(std::string_view name,
                                         const QSFileProviderItemIdentifier& inParentItemIdentifier,
                                         ItemCompletionHandler completionHandler);
    virtual void renameItemWithIdentifier(const QSFileProviderItemIdentifier& identifier,
                                          std::string_view toName,
                                          ItemCompletionHandler completionHandler);
    virtual std::shared_ptr<QSProgress> reparentItemWithIdentifier(
        const QSFileProviderItemIdentifier& identifier,
        const QSFileProviderItemIdentifier& toParentItemWithIdentifier,
        const std::optional<std::string>& newName, ItemCompletionHandler completionHandler);
    virtual std::shared_ptr<QSProgress> trashItemWithIdentifier(
        const QSFileProviderItemIdentifier& identifier, ItemCompletionHandler completionHandler);
    virtual std::shared_ptr<QSProgress> untrashItemWithIdentifier(
        const QSFileProviderItemIdentifier& identifier,
        const std::optional<QSFileProviderItemIdentifier>& toParentItemIdentifier,
        ItemCompletionHandler completionHandler);
    virtual std::shared_ptr<QSProgress> deleteItemWithIdentifier(
        const QSFileProviderItemIdentifier& identifier, CompletionHandler completionHandler);

    /// Deletes what was trashed before the date, and gives items without a trash date the present
    /// one. The handler is called when every deletion has ended, also where some failed.
    virtual void _removeTrashedItemsOlderThanDate(
        const QSDate& date, std::move_only_function<void()> completionHandler);
    /// Gives the present date to what came into the trash and was not put there by
    /// trashItemWithIdentifier, once. Blocks until everything that happened has been seen.
    virtual Result<void> dateArrivalsInTrash();
    /// What that would delete now; changes nothing.
    [[nodiscard]] virtual std::vector<ItemRef> itemsTrashedBeforeDate(const QSDate& date);

    // What the user keeps with an item; no value clears it. As above.
    virtual void setLastUsedDate(const std::optional<QSDate>& date,
                                 const QSFileProviderItemIdentifier& forItemIdentifier,
                                 ItemCompletionHandler completionHandler);
    /// The bytes of QPGetTagsDataForTags; the labels are kept.
    virtual void setTagData(const std::optional<QSData>& tagData,
                            const QSFileProviderItemIdentifier& forItemIdentifier,
                            ItemCompletionHandler completionHandler);
    virtual void setFavoriteRank(std::optional<std::uint64_t> rank,
                                 const QSFileProviderItemIdentifier& forItemIdentifier,
                                 ItemCompletionHandler completionHandler);

    /// One thumbnail: the bytes of a picture file, none if the item has no thumbnail of its own.
    using PerThumbnailCompletionHandler =
        std::function<void(const QSFileProviderItemIdentifier&, const std::optional<QSData>&,
                           const std::optional<QSError>&)>;
    /// The same with the type of the picture behind the bytes, none if there are no bytes.
    using PerThumbnailCompletionHandlerWithType =
        std::function<void(const QSFileProviderItemIdentifier&, const std::optional<QSData>&,
                           const std::optional<std::string>&, const std::optional<QSError>&)>;
    /// Calls the handler once for each identifier, in that order, then the completion handler. May
    /// do so before it returns. Extensions that do not say otherwise have no thumbnails.
    virtual std::shared_ptr<QSProgress> fetchThumbnailsForItemIdentifiers(
        const std::vector<QSFileProviderItemIdentifier>& identifiers, QSSize requestedSize,
        const PerThumbnailCompletionHandler& perThumbnailCompletionHandler,
        CompletionHandler completionHandler);
    virtual std::shared_ptr<QSProgress> fetchThumbnailsForItemIdentifiers(
        const std::vector<QSFileProviderItemIdentifier>& identifiers, QSSize requestedSize,
        const PerThumbnailCompletionHandlerWithType& perThumbnailCompletionHandlerWithType,
        CompletionHandler completionHandler);
};

}  // namespace platform

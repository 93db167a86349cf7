#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/dispatch/Queue.h"
#include "platform/fileprovider/QPPacer.h"
#include "platform/fileprovider/QSFileProviderExtension.h"
#include "tidewell/applibraries/AppLibraries.h"

namespace tidewell {

using namespace platform;

class LocalItem;

/// The principal class of the extension. Every item is a real file on this device, so nothing is
/// ever fetched; every request resolves its identifiers afresh, and nothing is kept between them.
class LocalFileProvider final : public QSFileProviderExtension {
  public:
    /// Starts following the application registry and asks the host to re-read the working set.
    [[nodiscard]] static std::shared_ptr<LocalFileProvider> init(
        std::shared_ptr<AppLibraries> appLibraries = AppLibraries::load());
    ~LocalFileProvider() override;

    [[nodiscard]] std::optional<QSURL> URLForItemWithPersistentIdentifier(
        const QSFileProviderItemIdentifier& identifier) override;
    [[nodiscard]] std::optional<QSFileProviderItemIdentifier> persistentIdentifierForItemAtURL(
        const QSURL& url) override;
    [[nodiscard]] Result<ItemRef> itemForIdentifier(
        const QSFileProviderItemIdentifier& identifier) override;
    [[nodiscard]] Result<std::shared_ptr<QSFileProviderEnumerator>>
    enumeratorForContainerItemIdentifier(const QSFileProviderItemIdentifier& identifier) override;
    [[nodiscard]] Result<std::vector<QSFileProviderItemIdentifier>> trashContainerItemIdentifiers()
        override;

    /// The item of the application's library, or the host's invalid-parameter error.
    void _defaultApplicationContainerForBundleIdentifier(
        const std::string& bundleIdentifier,
        const std::function<void(Result<ItemRef>)>& completionHandler);

    void providePlaceholderAtURL(const QSURL& url, CompletionHandler completionHandler) override;
    void startProvidingItemAtURL(const QSURL& url, CompletionHandler completionHandler) override;
    void stopProvidingItemAtURL(const QSURL& url) override;
    void itemChangedAtURL(const QSURL& url) override;

    std::shared_ptr<QSProgress> importDocumentAtURL(
        const QSURL& url, const QSFileProviderItemIdentifier& toParentItemIdentifier,
        ItemCompletionHandler completionHandler) override;
    void createDirectoryWithName(std::string_view name,
                                 const QSFileProviderItemIdentifier& inParentItemIdentifier,
                                 ItemCompletionHandler completionHandler) override;
    void renameItemWithIdentifier(const QSFileProviderItemIdentifier& identifier,
                                  std::string_view toName,
                                  ItemCompletionHandler completionHandler) override;
    std::shared_ptr<QSProgress> reparentItemWithIdentifier(
        const QSFileProviderItemIdentifier& identifier,
        const QSFileProviderItemIdentifier& toParentItemWithIdentifier,
        const std::optional<std::string>& newName,
        ItemCompletionHandler completionHandler) override;
    std::shared_ptr<QSProgress> trashItemWithIdentifier(
        const QSFileProviderItemIdentifier& identifier,
        ItemCompletionHandler completionHandler) override;
    std::shared_ptr<QSProgress> untrashItemWithIdentifier(
        const QSFileProviderItemIdentifier& identifier,
        const std::optional<QSFileProviderItemIdentifier>& toParentItemIdentifier,
        ItemCompletionHandler completionHandler) override;
    std::shared_ptr<QSProgress> deleteItemWithIdentifier(
        const QSFileProviderItemIdentifier& identifier,
        CompletionHandler completionHandler) override;
    void _removeTrashedItemsOlderThanDate(
        const QSDate& date, std::move_only_function<void()> completionHandler) override;
    Result<void> dateArrivalsInTrash() override;
    [[nodiscard]] std::vector<ItemRef> itemsTrashedBeforeDate(const QSDate& date) override;
    void setLastUsedDate(const std::optional<QSDate>& date,
                         const QSFileProviderItemIdentifier& forItemIdentifier,
                         ItemCompletionHandler completionHandler) override;
    void setTagData(const std::optional<QSData>& tagData,
                    const QSFileProviderItemIdentifier& forItemIdentifier,
                    ItemCompletionHandler completionHandler) override;
    void setFavoriteRank(std::optional<std::uint64_t> rank,
                         const QSFileProviderItemIdentifier& forItemIdentifier,
                         ItemCompletionHandler completionHandler) override;

    // Done when they return.
    std::shared_ptr<QSProgress> fetchThumbnailsForItemIdentifiers(
        const std::vector<QSFileProviderItemIdentifier>& identifiers, QSSize requestedSize,
        const PerThumbnailCompletionHandler& perThumbnailCompletionHandler,
        CompletionHandler completionHandler) override;
    std::shared_ptr<QSProgress> fetchThumbnailsForItemIdentifiers(
        const std::vector<QSFileProviderItemIdentifier>& identifiers, QSSize requestedSize,
        const PerThumbnailCompletionHandlerWithType& perThumbnailCompletionHandlerWithType,
        CompletionHandler completionHandler) override;

  private:
    /// What the notification centre knows as the observer, so that it never holds the provider.
    struct InstalledAppsProxy {
        std::weak_ptr<LocalFileProvider> provider;
    };

    explicit LocalFileProvider(std::shared_ptr<AppLibraries> appLibraries);
    void observeRegistry(const std::shared_ptr<LocalFileProvider>& self);

    /// The URL of the item, or the host's error for an item that does not exist.
    [[nodiscard]] Result<QSURL> throwingURLForItem(const QSFileProviderItemIdentifier& identifier);
    [[nodiscard]] std::optional<QSURL> _urlForItemWithPersistentIdentifier(
        const QSFileProviderItemIdentifier& identifier);
    /// `built`, where given, becomes the item that had to be built for that, if one had.
    [[nodiscard]] static std::optional<QSFileProviderItemIdentifier> _persistentIdentifierForItemAt(
        const QSURL& url, ItemRef* built = nullptr);
    /// The item at the URL that an operation arrived at; logs where there is none.
    [[nodiscard]] static Result<ItemRef> itemForResult(const QSURL& url);
    /// The same for one that was at `formerURL`.
    [[nodiscard]] static Result<ItemRef> itemForMoved(const QSURL& formerURL, const QSURL& url);
    /// What the operation is to be handed: completes with the item, or with the error as the host
    /// expects it. `identifier` is of the item that the call was about, empty where there was none;
    /// `formerURL` where that item was, for one that moves; `destination` of the folder that it is
    /// moved into.
    [[nodiscard]] static std::move_only_function<void(Result<QSURL>)> completingWithItem(
        std::string identifier, ItemCompletionHandler completionHandler,
        std::optional<QSURL> formerURL = {}, std::string destination = {});
    [[nodiscard]] std::optional<QSURL> untrashDestination(
        const LocalItem& item, const std::optional<QSFileProviderItemIdentifier>& parentIdentifier);

    // Constant after construction.
    std::shared_ptr<AppLibraries> appLibraries_;
    SerialQueue appRefreshQueue_;
    std::shared_ptr<InstalledAppsProxy> installedAppsProxy_;
    std::shared_ptr<QPPacer> appRefreshPacer_;
};

/// The item that an identifier of any form means; null, after a log line, if none. An error where
/// that cannot be found out, EBUSY where the item moves all the time. Shared by every operation
/// that takes an identifier.
[[nodiscard]] Result<std::shared_ptr<LocalItem>> itemMeantBy(const std::string& identifier);

/// The extension as the host instantiates it, over app libraries that are loaded already.
[[nodiscard]] std::shared_ptr<QSFileProviderExtension> makeLocalFileProvider(
    std::shared_ptr<AppLibraries> appLibraries = AppLibraries::load());

}  // namespace tidewell

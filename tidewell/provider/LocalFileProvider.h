#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/dispatch/Queue.h"
#include "platform/fileprovider/QPPacer.h"
#include "platform/fileprovider/QSFileProviderExtension.h"

namespace tidewell {

using namespace platform;

class LocalItem;

/// The principal class of the extension. Every item is a real file on this device, so nothing is
/// ever fetched; every request resolves its identifiers afresh, and nothing is kept between them.
class LocalFileProvider final : public QSFileProviderExtension {
  public:
    /// Starts following the application registry and asks the host to re-read the working set.
    [[nodiscard]] static std::shared_ptr<LocalFileProvider> init();
    ~LocalFileProvider() override;

    [[nodiscard]] std::optional<QSURL> URLForItemWithPersistentIdentifier(
        const QSFileProviderItemIdentifier& identifier) override;
    [[nodiscard]] std::optional<QSFileProviderItemIdentifier> persistentIdentifierForItemAtURL(
        const QSURL& url) override;
    [[nodiscard]] Result<ItemRef> itemForIdentifier(
        const QSFileProviderItemIdentifier& identifier) override;
    [[nodiscard]] Result<std::shared_ptr<QSFileProviderEnumerator>>
    enumeratorForContainerItemIdentifier(const QSFileProviderItemIdentifier& identifier) override;

    void providePlaceholderAtURL(const QSURL& url, CompletionHandler completionHandler) override;
    void startProvidingItemAtURL(const QSURL& url, CompletionHandler completionHandler) override;
    void stopProvidingItemAtURL(const QSURL& url) override;
    void itemChangedAtURL(const QSURL& url) override;

  private:
    /// What the notification centre knows as the observer, so that it never holds the provider.
    struct InstalledAppsProxy {
        std::weak_ptr<LocalFileProvider> provider;
    };

    LocalFileProvider();
    void observeRegistry(const std::shared_ptr<LocalFileProvider>& self);

    /// The URL of the item, or the host's error for an item that does not exist.
    [[nodiscard]] Result<QSURL> throwingURLForItem(const QSFileProviderItemIdentifier& identifier);
    [[nodiscard]] std::optional<QSURL> _urlForItemWithPersistentIdentifier(
        const QSFileProviderItemIdentifier& identifier);
    [[nodiscard]] std::optional<QSFileProviderItemIdentifier> _persistentIdentifierForItemAt(
        const QSURL& url);

    // Constant after construction.
    SerialQueue appRefreshQueue_;
    std::shared_ptr<InstalledAppsProxy> installedAppsProxy_;
    std::shared_ptr<QPPacer> appRefreshPacer_;
};

/// The item that an identifier of any form means; null, after a log line, if none. Shared by every
/// operation that takes an identifier.
[[nodiscard]] std::shared_ptr<LocalItem> itemMeantBy(const std::string& identifier);

/// The extension as the host instantiates it.
[[nodiscard]] std::shared_ptr<QSFileProviderExtension> makeLocalFileProvider();

}  // namespace tidewell

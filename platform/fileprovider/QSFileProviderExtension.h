#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string_view>

#include "platform/fileprovider/QSFileProviderEnumerator.h"
#include "platform/fileprovider/QSFileProviderItem.h"

namespace platform {

/// What the host instantiates and calls for every request. The host calls on threads of its own,
/// several at a time; every operation may block for the file system and the volume service.
class QSFileProviderExtension {
  public:
    using CompletionHandler = std::move_only_function<void(std::optional<QSError>)>;

    virtual ~QSFileProviderExtension() = default;

    [[nodiscard]] virtual std::optional<QSURL> URLForItemWithPersistentIdentifier(
        const QSFileProviderItemIdentifier& identifier) = 0;
    [[nodiscard]] virtual std::optional<QSFileProviderItemIdentifier>
    persistentIdentifierForItemAtURL(const QSURL& url) = 0;
    [[nodiscard]] virtual Result<ItemRef> itemForIdentifier(
        const QSFileProviderItemIdentifier& identifier) = 0;
    [[nodiscard]] virtual Result<std::shared_ptr<QSFileProviderEnumerator>>
    enumeratorForContainerItemIdentifier(const QSFileProviderItemIdentifier& identifier) = 0;

    virtual void providePlaceholderAtURL(const QSURL& url, CompletionHandler completionHandler) = 0;
    virtual void startProvidingItemAtURL(const QSURL& url, CompletionHandler completionHandler) = 0;
    virtual void stopProvidingItemAtURL(const QSURL& url) = 0;
    virtual void itemChangedAtURL(const QSURL& url) = 0;
};

}  // namespace platform

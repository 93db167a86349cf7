#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/fileprovider/QSFileProviderItem.h"
#include "platform/foundation/QSError.h"
#include "platform/foundation/QSURL.h"

namespace platform {

/// The extension's way back to its host.
class QSFileProviderManager {
  public:
    using CompletionHandler = std::move_only_function<void(std::optional<QSError>)>;
    /// The host's side of a signal: hands it over and calls the completion handler, once, on a
    /// thread of its choice.
    using SignalHandler =
        std::function<void(const QSFileProviderItemIdentifier&, CompletionHandler)>;

    explicit QSFileProviderManager(const QSURL& documentStorageURL);

    /// The installed platform's manager.
    [[nodiscard]] static QSFileProviderManager& defaultManager();

    /// The folder that is the root container, as presented: a new URL, which keeps nothing yet.
    [[nodiscard]] QSURL documentStorageURL() const;
    /// The same place for comparing paths.
    [[nodiscard]] const std::string& documentStoragePath() const { return documentStoragePath_; }

    /// Signals to the host that the container changed. Does not wait; with no host connected the
    /// handler is called with no error.
    void signalEnumeratorForContainerItemIdentifier(const QSFileProviderItemIdentifier& identifier,
                                                    CompletionHandler completionHandler);

    /// Connects the host; an empty handler disconnects it.
    void setSignalHandler(SignalHandler handler);

    /// Called once with how many items went.
    using DeletionHandler = std::move_only_function<void(Result<std::uint64_t>)>;
    using SearchableItems =
        std::function<void(const std::vector<std::string>& domains, DeletionHandler)>;
    /// Asks the host to forget what its search index holds of these domains. With no index
    /// connected nothing goes.
    void deleteSearchableItemsInDomains(const std::vector<std::string>& domains,
                                        DeletionHandler completionHandler);
    /// Connects the host's search index; an empty handler disconnects it.
    void setSearchableItems(SearchableItems handler);

  private:
    // Constant after construction.
    std::string documentStoragePath_;

    std::mutex mutex_;
    // Guarded by mutex_.
    SignalHandler handler_;
    SearchableItems searchableItems_;
};

}  // namespace platform

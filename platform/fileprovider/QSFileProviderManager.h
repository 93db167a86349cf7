#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <string>

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

    explicit QSFileProviderManager(QSURL documentStorageURL);

    /// The installed platform's manager.
    [[nodiscard]] static QSFileProviderManager& defaultManager();

    /// The folder that is the root container, as presented.
    [[nodiscard]] const QSURL& documentStorageURL() const { return documentStorageURL_; }

    /// Tells the host that the container changed. Does not wait; with no host connected the
    /// handler is called with no error.
    void signalEnumeratorForContainerItemIdentifier(const QSFileProviderItemIdentifier& identifier,
                                                    CompletionHandler completionHandler);

    /// Connects the host; an empty handler disconnects it.
    void setSignalHandler(SignalHandler handler);

  private:
    // Constant after construction.
    QSURL documentStorageURL_;

    std::mutex mutex_;
    SignalHandler handler_;  // guarded by mutex_
};

}  // namespace platform

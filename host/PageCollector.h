#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "platform/fileprovider/QSFileProviderEnumerator.h"

namespace host {

/// Receives one page from an extension on whatever threads it calls. What comes after the first
/// finishing call, or after the wait was given up, is dropped.
class PageCollector final : public platform::QSFileProviderEnumerationObserver {
  public:
    using Outcome = platform::Result<std::optional<platform::QSFileProviderPage>>;

    void didEnumerateItems(std::vector<platform::ItemRef> items) override;
    void finishEnumeratingUpToPage(std::optional<platform::QSFileProviderPage> nextPage) override;
    void finishEnumeratingWithError(platform::QSError error) override;

    /// Blocks for the finishing call; ETIMEDOUT with the items so far when the deadline passes.
    /// REQUIRES: called once.
    [[nodiscard]] std::pair<std::vector<platform::ItemRef>, Outcome> wait(
        std::chrono::milliseconds deadline);

  private:
    void finish(Outcome outcome);

    std::mutex mutex_;
    std::condition_variable finished_;
    std::vector<platform::ItemRef> items_;  // guarded by mutex_
    std::optional<Outcome> outcome_;        // guarded by mutex_
};

}  // namespace host

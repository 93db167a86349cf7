#pragma once

#include <iterator>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/local/Answer.h"
#include "platform/fileprovider/QSFileProviderEnumerator.h"

namespace host {

/// Receives one page of a listing.
class PageCollector final
    : public platform::QSFileProviderEnumerationObserver,
      public Answer<std::vector<platform::ItemRef>, std::optional<platform::QSFileProviderPage>> {
  public:
    void didEnumerateItems(std::vector<platform::ItemRef> items) override {
        collect([&](auto& all) { std::ranges::move(items, std::back_inserter(all)); });
    }
    void finishEnumeratingUpToPage(std::optional<platform::QSFileProviderPage> nextPage) override {
        finish(std::move(nextPage));
    }
    void finishEnumeratingWithError(platform::QSError error) override {
        finish(std::unexpected(std::move(error)));
    }
};

struct CollectedChanges {
    std::vector<platform::ItemRef> updates;
    std::vector<std::string> deletions;
};

/// Receives one page of changes; its end is the anchor and whether more is coming.
class ChangeCollector final
    : public platform::QSFileProviderChangeObserver,
      public Answer<CollectedChanges, std::pair<platform::QSFileProviderSyncAnchor, bool>> {
  public:
    void didUpdateItems(std::vector<platform::ItemRef> items) override {
        collect([&](auto& all) { std::ranges::move(items, std::back_inserter(all.updates)); });
    }
    void didDeleteItemsWithIdentifiers(
        std::vector<platform::QSFileProviderItemIdentifier> identifiers) override {
        collect(
            [&](auto& all) { std::ranges::move(identifiers, std::back_inserter(all.deletions)); });
    }
    void finishEnumeratingChangesUpToSyncAnchor(platform::QSFileProviderSyncAnchor anchor,
                                                bool moreComing) override {
        finish(std::pair(std::move(anchor), moreComing));
    }
    void finishEnumeratingWithError(platform::QSError error) override {
        finish(std::unexpected(std::move(error)));
    }
};

}  // namespace host

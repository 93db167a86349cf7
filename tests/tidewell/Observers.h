#pragma once

#include <gmock/gmock.h>

#include <functional>
#include <future>
#include <map>
#include <set>

#include "platform/fileprovider/QSFileProviderEnumerator.h"
#include "platform/fileprovider/QSFileProviderError.h"

namespace tests {

using namespace platform;

struct ChangeCollector final : QSFileProviderChangeObserver {
    void didUpdateItems(std::vector<ItemRef> items) override {
        EXPECT_TRUE(deleted.empty()) << "updates come first";
        for (auto& item : items) {
            auto identifier = item->itemIdentifier();
            if (whenUpdated) whenUpdated(identifier);
            EXPECT_TRUE(updated.emplace(std::move(identifier), std::move(item)).second);
        }
    }
    void didDeleteItemsWithIdentifiers(
        std::vector<QSFileProviderItemIdentifier> identifiers) override {
        for (auto& identifier : identifiers) {
            EXPECT_FALSE(updated.contains(identifier));
            EXPECT_TRUE(deleted.insert(std::move(identifier)).second);
        }
    }
    void finishEnumeratingChangesUpToSyncAnchor(QSFileProviderSyncAnchor reached,
                                                bool more) override {
        anchor = std::move(reached);
        moreComing = more;
        end.set_value();
    }
    void finishEnumeratingWithError(QSError failure) override {
        error = std::move(failure);
        end.set_value();
    }

    std::function<void(const std::string& identifier)> whenUpdated;
    std::map<std::string, ItemRef> updated;
    std::set<std::string> deleted;
    std::optional<QSFileProviderSyncAnchor> anchor;
    bool moreComing = false;
    std::optional<QSError> error;
    std::promise<void> end;  ///< a second last call throws
};

struct PageCollector final : QSFileProviderEnumerationObserver {
    void didEnumerateItems(std::vector<ItemRef> some) override {
        items.insert(items.end(), some.begin(), some.end());
    }
    void finishEnumeratingUpToPage(std::optional<QSFileProviderPage> page) override {
        ++finished;
        next = std::move(page);
    }
    void finishEnumeratingWithError(QSError failure) override {
        ++finished;
        error = std::move(failure);
    }
    [[nodiscard]] std::vector<std::string> names() const {
        std::vector<std::string> result;
        for (const auto& item : items) result.push_back(item->filename());
        return result;
    }

    std::vector<ItemRef> items;
    std::optional<QSFileProviderPage> next;
    std::optional<QSError> error;
    int finished = 0;
};

inline std::shared_ptr<PageCollector> onePage(
    QSFileProviderEnumerator& enumerator,
    const QSFileProviderPage& page = dataFromString(QSFileProviderInitialPageSortedByName)) {
    auto collector = std::make_shared<PageCollector>();
    enumerator.enumerateItemsForObserver(collector, page);
    EXPECT_EQ(collector->finished, 1);
    return collector;
}

}  // namespace tests

#pragma once

#include <atomic>
#include <map>
#include <thread>
#include <utility>

#include "platform/fileprovider/QSFileProviderError.h"
#include "platform/fileprovider/QSFileProviderExtension.h"

namespace tests {

using namespace platform;

/// An item of few words; fields that a test does not name are missing.
class ScriptedItem final : public QSFileProviderItem {
  public:
    ScriptedItem(std::string identifier, std::string type = "public.data")
        : identifier_(std::move(identifier)), type_(std::move(type)) {}

    std::string itemIdentifier() const override { return identifier_; }
    std::string parentItemIdentifier() const override { return "parent"; }
    std::string filename() const override { return "name of " + identifier_; }
    std::string typeIdentifier() const override { return type_; }
    std::optional<std::uint64_t> documentSize() const override { return 7; }
    std::optional<QSDate> creationDate() const override { return {}; }
    std::optional<QSDate> contentModificationDate() const override { return {}; }
    std::optional<std::uint16_t> childItemCount() const override { return {}; }
    QSFileProviderItemCapabilities capabilities() const override { return 5; }
    std::optional<QSData> versionIdentifier() const override { return {}; }
    bool isTrashed() const override { return false; }
    std::optional<QSDate> lastUsedDate() const override { return {}; }
    std::optional<QSData> tagData() const override { return {}; }
    std::optional<std::uint64_t> favoriteRank() const override { return {}; }
    std::optional<std::int64_t> fileID() const override { return 12; }
    std::optional<std::int64_t> docID() const override { return {}; }
    std::optional<QSURL> fileURL() const override {
        return QSURL::fileURLWithPath("/presented/" + identifier_);
    }
    std::optional<std::string> qp_beaconDomainIdentifier() const override { return {}; }
    std::optional<std::string> qp_appContainerBundleIdentifier() const override { return {}; }
    bool qp_isUbiquitous() const override { return false; }
    bool qp_isContainer() const override { return false; }

  private:
    std::string identifier_;
    std::string type_;
};

struct ScriptedChanges {
    std::vector<ItemRef> updates = {};
    std::vector<std::string> deletions = {};
    std::string anchor = {};  ///< the one after them
    bool moreComing = false;
    std::optional<QSError> failure = {};  ///< the end instead
};

/// What one container holds and how its listing goes wrong. Pages hold two rows; all answers come
/// from other threads.
struct ScriptedContainer {
    std::vector<ItemRef> rows = {};
    /// For each try in turn: the page (from 0) that is refused, with its items sent before. Tries
    /// beyond the list run through.
    std::vector<std::size_t> refusedPages = {};
    /// The answer to every page instead, where set.
    std::optional<QSError> failure = {};
    /// By the anchor before them. Any other anchor has expired.
    std::map<std::string, ScriptedChanges> changes = {};
    std::optional<std::string> anchor = {};  ///< the present one
    bool neverAnswers = false;

    std::size_t tries = 0;  ///< initial pages asked for
    std::size_t pages = 0;
    int enumeratorsMade = 0;
    int enumeratorsInvalidated = 0;
    int watches = 0;  ///< enumerators asked for their anchor and not stopped
    std::string lastInitialPage = {};
};

/// Followings of one container may end side by side.
inline void count(int& counter, int by) {
    std::atomic_ref(counter) += by;
}

class ScriptedEnumerator final : public QSFileProviderEnumerator {
  public:
    explicit ScriptedEnumerator(ScriptedContainer& container) : container_(container) {}

    void enumerateItemsForObserver(std::shared_ptr<QSFileProviderEnumerationObserver> observer,
                                   const QSFileProviderPage& page) override {
        run([this, observer, page] { answer(*observer, page); });
    }
    void enumerateChangesForObserver(std::shared_ptr<QSFileProviderChangeObserver> observer,
                                     const QSFileProviderSyncAnchor& since) override {
        run([this, observer, since] { answerChanges(*observer, since); });
    }
    void currentSyncAnchorWithCompletionHandler(SyncAnchorHandler completionHandler) override {
        count(container_.watches, std::exchange(isObserving_, true) ? 0 : 1);
        run([this, completionHandler] {
            completionHandler(container_.anchor.transform(dataFromString));
        });
    }
    void start() override {}
    void stop() override { count(container_.watches, std::exchange(isObserving_, false) ? -1 : 0); }
    void invalidate() override {
        stop();
        count(container_.enumeratorsInvalidated, 1);
    }

  private:
    void run(auto work) {
        if (!container_.neverAnswers) threads_.emplace_back(std::move(work));
    }

    void answerChanges(QSFileProviderChangeObserver& observer,
                       const QSFileProviderSyncAnchor& since) {
        const auto found = container_.changes.find(std::string(stringFromData(since)));
        if (found == container_.changes.end()) {
            return observer.finishEnumeratingWithError(syncAnchorExpiredError());
        }
        const auto& page = found->second;
        observer.didUpdateItems(page.updates);
        observer.didDeleteItemsWithIdentifiers(page.deletions);
        if (page.failure) return observer.finishEnumeratingWithError(*page.failure);
        observer.finishEnumeratingChangesUpToSyncAnchor(dataFromString(page.anchor),
                                                        page.moreComing);
    }

    void answer(QSFileProviderEnumerationObserver& observer, const QSFileProviderPage& page) {
        const std::string text(stringFromData(page));
        const bool isInitial = text.starts_with("initialPage");
        if (isInitial) {
            container_.lastInitialPage = text;
            ++container_.tries;
        }
        const std::size_t index = isInitial ? 0 : std::stoul(text);
        ++container_.pages;
        if (container_.failure) return observer.finishEnumeratingWithError(*container_.failure);
        std::vector<ItemRef> items;
        for (auto at = index * 2; at < container_.rows.size() && items.size() < 2; ++at) {
            items.push_back(container_.rows[at]);
        }
        observer.didEnumerateItems(items);
        const auto thisTry = container_.tries - 1;
        if (thisTry < container_.refusedPages.size() && container_.refusedPages[thisTry] == index) {
            return observer.finishEnumeratingWithError(syncAnchorExpiredError());
        }
        if (items.size() < 2) return observer.finishEnumeratingUpToPage(std::nullopt);
        observer.finishEnumeratingUpToPage(dataFromString(std::to_string(index + 1)));
    }

    ScriptedContainer& container_;
    bool isObserving_ = false;
    std::vector<std::jthread> threads_;
};

/// Answers from tables. What a table lacks does not exist.
class ScriptedExtension : public QSFileProviderExtension {
  public:
    std::map<std::string, ScriptedContainer> containers;
    std::map<std::string, std::string> identifiersByPath;  ///< presented paths
    Result<std::vector<std::string>> trashContainers;
    Result<void> itemsFound;  ///< the error of every item that is asked for

    std::optional<QSURL> URLForItemWithPersistentIdentifier(
        const std::string& identifier) override {
        for (const auto& [path, known] : identifiersByPath) {
            if (known == identifier) return QSURL::fileURLWithPath(path);
        }
        return {};
    }
    std::optional<std::string> persistentIdentifierForItemAtURL(const QSURL& url) override {
        const auto found = identifiersByPath.find(url.path());
        return found == identifiersByPath.end() ? std::nullopt : std::optional(found->second);
    }
    Result<ItemRef> itemForIdentifier(const std::string& identifier) override {
        if (!itemsFound) return std::unexpected(itemsFound.error());
        return std::make_shared<ScriptedItem>(identifier);
    }
    Result<std::shared_ptr<QSFileProviderEnumerator>> enumeratorForContainerItemIdentifier(
        const std::string& identifier) override {
        const auto found = containers.find(identifier);
        if (found == containers.end()) {
            return std::unexpected(fileProviderErrorForNonExistentItemWithIdentifier(identifier));
        }
        count(found->second.enumeratorsMade, 1);
        return std::make_shared<ScriptedEnumerator>(found->second);
    }
    Result<std::vector<std::string>> trashContainerItemIdentifiers() override {
        return trashContainers;
    }
    void providePlaceholderAtURL(const QSURL&, CompletionHandler) override {}
    void startProvidingItemAtURL(const QSURL&, CompletionHandler) override {}
    void stopProvidingItemAtURL(const QSURL&) override {}
    void itemChangedAtURL(const QSURL&) override {}
};

}  // namespace tests

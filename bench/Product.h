#pragma once

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <semaphore>
#include <string>
#include <utility>
#include <vector>

#include "bench/Measure.h"
#include "platform/fileprovider/Platform.h"
#include "platform/fileprovider/QSFileProviderEnumerator.h"
#include "platform/fileprovider/QSFileProviderExtension.h"
#include "tidewell/provider/LocalFileProvider.h"

/// The product in process, driven as its host drives it.
namespace bench {

[[noreturn]] inline void fail(const std::string& what) {
    std::fprintf(stderr, "tidewell-bench: %s\n", what.c_str());
    std::exit(1);
}

/// The bytes of every value that a host would pass on, so that none stays uncomputed.
inline std::size_t consume(const platform::QSFileProviderItem& item) {
    const auto tags = item.tagData();
    const auto version = item.versionIdentifier();
    return item.itemIdentifier().size() + item.parentItemIdentifier().size() +
           item.filename().size() + item.typeIdentifier().size() + item.documentSize().value_or(0) +
           item.capabilities() + item.childItemCount().value_or(0) +
           item.favoriteRank().value_or(0) + std::size_t{item.creationDate().has_value()} +
           std::size_t{item.contentModificationDate().has_value()} +
           std::size_t{item.lastUsedDate().has_value()} + (tags ? tags->size() : 0) +
           (version ? version->size() : 0) + std::size_t{item.isTrashed()};
}

class Observer final : public platform::QSFileProviderEnumerationObserver {
  public:
    void didEnumerateItems(std::vector<platform::ItemRef> items) override {
        for (const platform::ItemRef& item : items) {
            consumed_ = consumed_ + consume(*item);
            identifiers.push_back(item->itemIdentifier());
        }
    }
    void finishEnumeratingUpToPage(std::optional<platform::QSFileProviderPage> page) override {
        nextPage = std::move(page);
        finished_.release();
    }
    void finishEnumeratingWithError(platform::QSError error) override { fail(error.description()); }
    void wait() { finished_.acquire(); }

    // Read after wait().
    std::vector<platform::QSFileProviderItemIdentifier> identifiers;
    std::optional<platform::QSFileProviderPage> nextPage;

  private:
    volatile std::size_t consumed_ = 0;
    std::binary_semaphore finished_{0};
};

inline std::unique_ptr<platform::Platform> makePlatform(const std::string& storage,
                                                        const std::string& state, bool crawls) {
    platform::Platform::Options options;
    options.folders = {.storage = storage,
                       .data = state + "/data",
                       .state = state + "/state",
                       .cache = state + "/cache",
                       .config = state + "/config",
                       .applicationSupport = state + "/support"};
    options.followsAtStart = crawls;
    options.applications = platform::RegistrySources{};
    auto made = platform::Platform::make(std::move(options));
    if (!made) fail(made.error().description());
    return std::move(*made);
}

/// The provider on a platform of its own. One that does not crawl has a listing measured alone.
class Provider {
  public:
    Provider(const std::string& storage, const std::string& container, const std::string& state,
             bool crawls = false)
        : platform_(makePlatform(storage, state, crawls)) {
        platform_->install();
        provider_ = tidewell::makeLocalFileProvider();
        if (container == "working-set") {
            container_ = platform::QSFileProviderWorkingSetContainerItemIdentifier;
            return;
        }
        const auto identifier = provider_->persistentIdentifierForItemAtURL(
            platform_->files().URLForNativePath(storage + "/" + container));
        if (!identifier) fail("no identifier for " + container);
        container_ = *identifier;
    }

    [[nodiscard]] std::shared_ptr<platform::QSFileProviderEnumerator> enumerator() const {
        auto made = provider_->enumeratorForContainerItemIdentifier(container_);
        if (!made) fail(made.error().description());
        return *made;
    }

    [[nodiscard]] platform::Platform& platform() const { return *platform_; }
    [[nodiscard]] platform::QSFileProviderExtension& extension() const { return *provider_; }
    [[nodiscard]] const platform::QSFileProviderItemIdentifier& container() const {
        return container_;
    }

  private:
    std::unique_ptr<platform::Platform> platform_;
    std::shared_ptr<platform::QSFileProviderExtension> provider_;
    platform::QSFileProviderItemIdentifier container_;
};

struct Page {
    double seconds = 0;
    std::vector<platform::QSFileProviderItemIdentifier> items;
};

/// Every page, as a host asks for them.
inline std::vector<Page> list(platform::QSFileProviderEnumerator& enumerator) {
    std::vector<Page> pages;
    std::optional token = platform::dataFromString(platform::QSFileProviderInitialPageSortedByName);
    while (token) {
        auto observer = std::make_shared<Observer>();
        const double start = now();
        enumerator.enumerateItemsForObserver(observer, *token);
        observer->wait();
        pages.push_back({now() - start, std::move(observer->identifiers)});
        token = std::move(observer->nextPage);
    }
    return pages;
}

}  // namespace bench

// The product in process, driven as its host drives it: the provider's enumerators page by page, on
// a store of its own.
//
//   tidewell-bench-product list STORAGE CONTAINER STATE ROUNDS   first listing and later ones
//   tidewell-bench-product pages STORAGE CONTAINER STATE ROUNDS  a page at 0, 50 and 95 %
//   tidewell-bench-product crawl STORAGE STATE                   first crawl, and that of a restart
//
// CONTAINER is a folder below STORAGE, or "working-set" for all of it. STATE is a folder that does
// not exist yet. Times are microseconds, of a listing and a crawl per item.

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <semaphore>
#include <string>
#include <vector>

#include "bench/Measure.h"
#include "platform/fileprovider/Platform.h"
#include "platform/fileprovider/QSFileProviderEnumerator.h"
#include "platform/fileprovider/QSFileProviderExtension.h"
#include "tidewell/provider/LocalFileProvider.h"

namespace {

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "tidewell-bench-product: %s\n", what.c_str());
    std::exit(1);
}

/// The bytes of every value that a host would pass on, so that none stays uncomputed.
std::size_t consume(const platform::QSFileProviderItem& item) {
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
        for (const platform::ItemRef& item : items) consumed_ = consumed_ + consume(*item);
        count += items.size();
    }
    void finishEnumeratingUpToPage(std::optional<platform::QSFileProviderPage> page) override {
        nextPage = std::move(page);
        finished_.release();
    }
    void finishEnumeratingWithError(platform::QSError error) override { fail(error.description()); }
    void wait() { finished_.acquire(); }

    std::size_t count = 0;                                 // read after wait()
    std::optional<platform::QSFileProviderPage> nextPage;  // read after wait()

  private:
    volatile std::size_t consumed_ = 0;
    std::binary_semaphore finished_{0};
};

std::unique_ptr<platform::Platform> makePlatform(const std::string& storage,
                                                 const std::string& state, bool crawls) {
    platform::Platform::Options options;
    options.folders = {.storage = storage,
                       .data = state + "/data",
                       .state = state + "/state",
                       .cache = state + "/cache",
                       .applicationSupport = state + "/support"};
    options.followsAtStart = crawls;
    auto made = platform::Platform::make(std::move(options));
    if (!made) fail(made.error().description());
    return std::move(*made);
}

/// The provider on a platform of its own that does not crawl, so that a listing is measured alone.
class Provider {
  public:
    Provider(const std::string& storage, const std::string& container, const std::string& state)
        : platform_(makePlatform(storage, state, false)) {
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

  private:
    std::unique_ptr<platform::Platform> platform_;
    std::shared_ptr<platform::QSFileProviderExtension> provider_;
    platform::QSFileProviderItemIdentifier container_;
};

struct Page {
    double seconds = 0;
    std::size_t items = 0;
};

/// Every page, as a host asks for them.
std::vector<Page> list(platform::QSFileProviderEnumerator& enumerator) {
    std::vector<Page> pages;
    std::optional token = platform::dataFromString(platform::QSFileProviderInitialPageSortedByName);
    while (token) {
        auto observer = std::make_shared<Observer>();
        const double start = bench::now();
        enumerator.enumerateItemsForObserver(observer, *token);
        observer->wait();
        pages.push_back({bench::now() - start, observer->count});
        token = std::move(observer->nextPage);
    }
    return pages;
}

/// Microseconds an item of one whole listing by a new enumerator.
double listWhole(const Provider& provider) {
    const double start = bench::now();
    std::size_t items = 0;
    const auto enumerator = provider.enumerator();
    for (const Page& page : list(*enumerator)) items += page.items;
    if (items == 0) fail("the container is empty");
    const double seconds = bench::now() - start;
    enumerator->invalidate();
    return seconds * 1e6 / static_cast<double>(items);
}

void benchList(const Provider& provider, int rounds) {
    const double before = bench::memory("VmRSS");
    bench::report("first", listWhole(provider));
    std::vector<double> later;
    for (int round = 0; round < rounds; ++round) later.push_back(listWhole(provider));
    bench::report("later", bench::median(later));
    bench::report("peakMiB", (bench::memory("VmHWM") - before) / 1048576);
}

void benchPages(const Provider& provider, int rounds) {
    listWhole(provider);  // so that every identity is there
    constexpr std::size_t run = 9;
    constexpr std::array<std::size_t, 3> shares = {0, 50, 95};
    std::array<std::vector<double>, shares.size()> times;
    for (int round = 0; round < rounds; ++round) {
        const auto enumerator = provider.enumerator();
        const std::vector<Page> pages = list(*enumerator);
        enumerator->invalidate();
        for (std::size_t place = 0; place < shares.size(); ++place) {
            const std::size_t first = pages.size() * shares[place] / 100;
            for (std::size_t at = first; at < std::min(first + run, pages.size() - 1); ++at) {
                times[place].push_back(pages[at].seconds * 1e6);
            }
        }
    }
    for (std::size_t place = 0; place < shares.size(); ++place) {
        bench::report(std::to_string(shares[place]), bench::median(times[place]));
    }
}

void benchCrawl(const std::string& storage, const std::string& state) {
    const double before = bench::memory("VmRSS");
    for (const char* name : {"first", "again"}) {
        const double start = bench::now();
        const auto made = makePlatform(storage, state, true);
        (void)made->volume().waitUntilSeen();
        const double seconds = bench::now() - start;
        const auto statistics = made->volume().statistics();
        const auto objects = static_cast<double>(statistics.objects);
        bench::report(name, seconds * 1e6 / objects);
        if (std::string(name) == "again") continue;
        bench::report("objects", objects);
        bench::report("indexBytes", static_cast<double>(statistics.indexBytes) / objects);
        bench::report("residentBytes", (bench::memory("VmRSS") - before) / objects);
        bench::report("peakMiB", (bench::memory("VmHWM") - before) / 1048576);
    }
}

}  // namespace

int main(int count, char** arguments) {
    const std::string mode = count > 1 ? arguments[1] : "";
    if (mode == "crawl" && count == 4) {
        benchCrawl(arguments[2], arguments[3]);
    } else if ((mode == "list" || mode == "pages") && count == 6) {
        const Provider provider(arguments[2], arguments[3], arguments[4]);
        const int rounds = std::max(1, std::atoi(arguments[5]));
        mode == "list" ? benchList(provider, rounds) : benchPages(provider, rounds);
    } else {
        std::fputs(
            "usage: tidewell-bench-product list|pages STORAGE CONTAINER STATE ROUNDS\n"
            "       tidewell-bench-product crawl STORAGE STATE\n",
            stderr);
        return 2;
    }
}

// The product in process, driven as its host drives it, where something happens to the files.
//
//   tidewell-bench-history changes STORAGE STATE          pages of changes, and look-ups
//   tidewell-bench-history storm STORAGE STATE FILES      a storm of changes, until all is seen
//   tidewell-bench-history signals STORAGE STATE WRITES   from a write to the host's signal
//
// STORAGE is for `changes` a tree of tidewell-bench-make-tree with a hundred documents to a folder,
// for `storm` what tidewell-bench-storm prepared, and for `signals` a folder. STATE is a folder
// that does not exist yet.

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <semaphore>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "bench/Measure.h"
#include "bench/Product.h"
#include "bench/Workload.h"

namespace {

using bench::fail;
using bench::Provider;

class ChangeObserver final : public platform::QSFileProviderChangeObserver {
  public:
    void didUpdateItems(std::vector<platform::ItemRef> items) override {
        for (const platform::ItemRef& item : items) {
            consumed_ = consumed_ + bench::consume(*item);
            updated.push_back(item->itemIdentifier());
        }
    }
    void didDeleteItemsWithIdentifiers(
        std::vector<platform::QSFileProviderItemIdentifier> /*identifiers*/) override {}
    void finishEnumeratingChangesUpToSyncAnchor(platform::QSFileProviderSyncAnchor reached,
                                                bool more) override {
        anchor = std::move(reached);
        moreComing = more;
        finished_.release();
    }
    void finishEnumeratingWithError(platform::QSError error) override { fail(error.description()); }
    void wait() { finished_.acquire(); }

    // Read after wait().
    std::vector<platform::QSFileProviderItemIdentifier> updated;
    platform::QSFileProviderSyncAnchor anchor;
    bool moreComing = false;

  private:
    volatile std::size_t consumed_ = 0;
    std::binary_semaphore finished_{0};
};

platform::QSFileProviderSyncAnchor anchorOf(platform::QSFileProviderEnumerator& enumerator) {
    std::optional<platform::QSFileProviderSyncAnchor> anchor;
    std::binary_semaphore answered{0};
    enumerator.currentSyncAnchorWithCompletionHandler([&](auto present) {
        anchor = std::move(present);
        answered.release();
    });
    answered.acquire();
    if (!anchor) fail("no anchor");
    return *anchor;
}

struct Changes {
    double firstPage = 0;  ///< microseconds
    double all = 0;
    std::set<platform::QSFileProviderItemIdentifier> updated;
};

Changes changesSince(platform::QSFileProviderEnumerator& enumerator,
                     platform::QSFileProviderSyncAnchor anchor) {
    Changes changes;
    const double start = bench::now();
    for (bool moreComing = true; moreComing;) {
        const auto observer = std::make_shared<ChangeObserver>();
        enumerator.enumerateChangesForObserver(observer, anchor);
        observer->wait();
        changes.all = (bench::now() - start) * 1e6;
        if (changes.firstPage == 0) changes.firstPage = changes.all;
        changes.updated.insert(observer->updated.begin(), observer->updated.end());
        anchor = observer->anchor;
        moreComing = observer->moreComing;
    }
    return changes;
}

/// Asks again and again from the same anchor, as several hosts would.
void benchChanges(const Provider& provider, const platform::QSFileProviderSyncAnchor& anchor,
                  std::size_t changed, int rounds) {
    if (!provider.platform().volume().waitUntilSettled()) fail("what happened was not seen");
    const auto enumerator = provider.enumerator();
    std::vector<double> firstPages;
    std::vector<double> all;
    for (int round = 0; round < rounds; ++round) {
        const Changes changes = changesSince(*enumerator, anchor);
        if (changes.updated.size() != changed) {
            fail(std::to_string(changes.updated.size()) + " updates of " + std::to_string(changed));
        }
        firstPages.push_back(changes.firstPage);
        all.push_back(changes.all);
    }
    enumerator->invalidate();
    bench::report("first." + std::to_string(changed), bench::median(firstPages));
    bench::report("all." + std::to_string(changed), bench::median(all));
}

/// Microseconds of one call for each of the identifiers.
template <typename Identifiers, typename Call>
double microsecondsEach(const Identifiers& identifiers, Call call) {
    const double start = bench::now();
    for (const auto& identifier : identifiers) {
        if (!call(identifier)) fail("an identifier was not found");
    }
    return (bench::now() - start) * 1e6 / static_cast<double>(identifiers.size());
}

void benchLookUps(const Provider& provider,
                  std::vector<platform::QSFileProviderItemIdentifier> items) {
    auto& volume = provider.platform().volume();
    std::ranges::shuffle(items, std::mt19937(1));
    std::erase_if(items, [](const std::string& item) { return !item.starts_with("did="); });
    std::vector<std::uint32_t> documents;
    std::vector<std::uint64_t> files;
    for (const std::string& item : items) {
        documents.push_back(static_cast<std::uint32_t>(std::stoul(item.substr(4))));
        files.push_back(volume.fileIDForDocumentID(documents.back()).value_or(0));
    }
    bench::report("documentToObject", microsecondsEach(documents, [&](std::uint32_t document) {
                      return volume.fileIDForDocumentID(document).has_value();
                  }));
    bench::report("fileToPath", microsecondsEach(files, [&](std::uint64_t file) {
                      return volume.URLForFileID(file).has_value();
                  }));
    bench::report("identifierToItem", microsecondsEach(items, [&](const std::string& item) {
                      const auto found = provider.extension().itemForIdentifier(item);
                      return found && bench::consume(**found) > 0;
                  }));
}

void benchHistory(const std::string& storage, const std::string& state) {
    const Provider provider(storage, "working-set", state, true);
    if (!provider.platform().volume().waitUntilSettled()) fail("the crawl was not finished");
    const auto enumerator = provider.enumerator();
    std::vector<platform::QSFileProviderItemIdentifier> items;
    for (const bench::Page& page : bench::list(*enumerator)) {
        items.insert(items.end(), page.items.begin(), page.items.end());
    }
    benchLookUps(provider, std::move(items));
    auto anchor = anchorOf(*enumerator);
    benchChanges(provider, anchor, 0, 200);
    constexpr int few = 100;
    constexpr int many = 10'000;
    for (int document = 0; document < few; ++document) {
        bench::writeTo(storage + "/" + bench::documentPath(document));
    }
    benchChanges(provider, anchor, few, 50);
    anchor = anchorOf(*enumerator);
    for (int document = few; document < few + many; ++document) {
        bench::writeTo(storage + "/" + bench::documentPath(document));
    }
    benchChanges(provider, anchor, many, 5);
}

void benchStorm(const std::string& storage, const std::string& state, int files) {
    const auto made = bench::makePlatform(storage, state, true);
    auto& volume = made->volume();
    if (!volume.waitUntilSettled()) fail("the crawl was not finished");
    const std::uint64_t before = volume.currentEventID();
    const double memory = bench::memory("VmRSS");
    const double cpu = bench::cpuSeconds();
    const bench::Storm storm = bench::runStorm(storage, files);
    const double end = bench::now();
    if (!volume.waitUntilSeen()) fail("the storm was not seen");
    bench::report("seenSeconds", bench::now() - end);
    bench::report("stormSeconds", storm.seconds);
    bench::report("cpuAnEvent", (bench::cpuSeconds() - cpu) * 1e6 / storm.events);
    bench::report("residentMiB", bench::memory("VmHWM") / 1048576);
    bench::report("grownMiB", (bench::memory("VmHWM") - memory) / 1048576);

    const auto events = volume.eventsAfter(before, volume.currentEventID(), ~std::size_t{0});
    if (!events) fail(events.error().description());
    std::set<std::string> kept;
    double gaps = 0;
    for (const auto& event : *events) {
        if (event.path.find("/Kept ") != std::string::npos) kept.insert(event.path);
        gaps += (event.flags & platform::fsEventKernelDropped) != 0 ? 1 : 0;
    }
    bench::report("lost", storm.kept - static_cast<double>(kept.size()));
    bench::report("gaps", gaps);
}

/// When the host heard of the container.
class SignalClock {
  public:
    SignalClock(platform::QSFileProviderManager& manager, std::string container)
        : manager_(manager), container_(std::move(container)) {
        manager_.setSignalHandler([this](const auto& signalled, auto answer) {
            if (signalled == container_) {
                time_ = bench::now();
                heard_.release();
            }
            answer(std::nullopt);
        });
    }
    ~SignalClock() { manager_.setSignalHandler({}); }
    SignalClock(const SignalClock&) = delete;
    SignalClock& operator=(const SignalClock&) = delete;

    double wait() {
        if (!heard_.try_acquire_for(std::chrono::seconds(5))) fail("no signal came");
        return time_;
    }

  private:
    platform::QSFileProviderManager& manager_;
    const std::string container_;
    double time_ = 0;  // handed over by heard_
    std::counting_semaphore<> heard_{0};
};

void benchSignals(const std::string& storage, const std::string& state, int writes) {
    bench::writeTo(storage + "/Watched/Document.txt");
    const Provider provider(storage, "Watched", state, true);
    // So many that the store's log is used again, as in a service that has run for a while: a log
    // that grows takes longer to reach the disk.
    constexpr int writesBefore = 600;
    for (int round = 0; round < writesBefore; ++round) {
        bench::writeTo(storage + "/Watched/Document.txt");
        if (!provider.platform().volume().waitUntilSeen()) fail("what happened was not seen");
    }
    if (!provider.platform().volume().waitUntilSettled()) fail("what happened was not seen");
    const auto enumerator = provider.enumerator();
    SignalClock clock(provider.platform().manager(), provider.container());
    enumerator->start();
    std::vector<double> delays;
    for (int round = 0; round < writes; ++round) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));  // so that each finds it idle
        const double start = bench::now();
        bench::writeTo(storage + "/Watched/Document.txt");
        delays.push_back((clock.wait() - start - 0.5) * 1e3);
    }
    enumerator->stop();
    enumerator->invalidate();
    bench::report("p50", bench::quantile(delays, 0.5));
    bench::report("p99", bench::quantile(delays, 0.99));
}

}  // namespace

int main(int count, char** arguments) {
    const std::string mode = count > 3 ? arguments[1] : "";
    if (mode == "changes" && count == 4) {
        benchHistory(arguments[2], arguments[3]);
    } else if (mode == "storm" && count == 5) {
        benchStorm(arguments[2], arguments[3], std::atoi(arguments[4]));
    } else if (mode == "signals" && count == 5) {
        benchSignals(arguments[2], arguments[3], std::atoi(arguments[4]));
    } else {
        std::fputs(
            "usage: tidewell-bench-history changes STORAGE STATE\n"
            "       tidewell-bench-history storm STORAGE STATE FILES\n"
            "       tidewell-bench-history signals STORAGE STATE WRITES\n",
            stderr);
        return 2;
    }
}

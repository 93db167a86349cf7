// The product in process, driven as its host drives it: the provider's enumerators page by page, on
// a store of its own.
//
//   tidewell-bench-product list STORAGE CONTAINER STATE ROUNDS   first listing and later ones
//   tidewell-bench-product pages STORAGE CONTAINER STATE ROUNDS  a page at 0, 50 and 95 %
//   tidewell-bench-product crawl STORAGE STATE                   first crawl, and those of a
//   restart:
//                                   with nothing changed, and with every hundredth file changed
//
// CONTAINER is a folder below STORAGE, or "working-set" for all of it. STATE is a folder that does
// not exist yet. Times are microseconds, of a listing and a crawl per item.

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "bench/Measure.h"
#include "bench/Product.h"
#include "bench/Workload.h"

namespace {

using bench::fail;
using bench::Page;
using bench::Provider;

/// Microseconds an item of one whole listing by a new enumerator.
double listWhole(const Provider& provider) {
    const double start = bench::now();
    std::size_t items = 0;
    const auto enumerator = provider.enumerator();
    for (const Page& page : bench::list(*enumerator)) items += page.items.size();
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
        const std::vector<Page> pages = bench::list(*enumerator);
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

/// Opens the volume and waits until everything was compared.
std::unique_ptr<platform::Platform> catchUp(const std::string& storage, const std::string& state,
                                            const char* name) {
    const double start = bench::now();
    auto made = bench::makePlatform(storage, state, true);
    if (!made->volume().waitUntilSeen()) fail("the crawl was not finished");
    const double seconds = bench::now() - start;
    const auto objects = static_cast<double>(made->volume().statistics().objects);
    bench::report(name, seconds * 1e6 / objects);
    return made;
}

/// How many documents there are events of after that one.
std::size_t documentsChangedAfter(const platform::VolumeService& volume, std::uint64_t event) {
    const auto events = volume.eventsAfter(event, volume.currentEventID(), ~std::size_t{0});
    if (!events) fail(events.error().description());
    std::set<std::string> paths;
    for (const auto& one : *events) {
        if (one.path.ends_with(".txt")) paths.insert(one.path);
    }
    return paths.size();
}

void benchCrawl(const std::string& storage, const std::string& state) {
    std::uint64_t last = 0;
    {
        const double before = bench::memory("VmRSS");
        const auto made = catchUp(storage, state, "first");
        const auto statistics = made->volume().statistics();
        const auto objects = static_cast<double>(statistics.objects);
        bench::report("objects", objects);
        bench::report("indexBytes", static_cast<double>(statistics.indexBytes) / objects);
        bench::report("residentBytes", (bench::memory("VmRSS") - before) / objects);
        bench::report("peakMiB", (bench::memory("VmHWM") - before) / 1048576);
    }
    last = catchUp(storage, state, "again")->volume().currentEventID();
    const std::size_t changed = bench::touchEvery(100, storage);
    const auto made = catchUp(storage, state, "changed");
    bench::report("found", static_cast<double>(documentsChangedAfter(made->volume(), last)) /
                               static_cast<double>(changed));
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

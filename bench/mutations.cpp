// What changes documents, driven as the host drives it.
//
//   tidewell-bench-mutations import SCRATCH SOURCE   seconds to import
//   tidewell-bench-mutations copy SCRATCH SOURCE     seconds to copy alone, without syncing
//   tidewell-bench-mutations trash SCRATCH ITEMS     microseconds an item, half of them one after
//                                                    another, half four at once; then to delete
//                                                    each
//   tidewell-bench-mutations delete SCRATCH ITEMS    microseconds an item, as one folder
//
// SCRATCH is an empty folder on the file system that is measured. Identifiers are known, as to a
// host that has listed the folder.

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>
#include <span>
#include <thread>

#include "bench/Product.h"
#include "platform/files/TreeCopy.h"
#include "platform/tree/TreeLayout.h"

namespace {

namespace fs = std::filesystem;

class Bench {
  public:
    explicit Bench(const fs::path& scratch) : scratch_(scratch) {
        fs::create_directories(scratch / "storage/in");
    }

    void start() {
        platform::Platform::Options options;
        options.folders.storage = scratch_ / "storage";
        options.folders.data = scratch_ / "state/data";
        options.folders.state = scratch_ / "state/state";
        options.folders.cache = scratch_ / "state/cache";
        options.folders.config = scratch_ / "state/config";
        options.folders.applicationSupport = scratch_ / "state/application-support";
        auto made = platform::Platform::make(options);
        if (!made) bench::fail(made.error().description());
        platform_ = std::move(*made);
        platform_->install();
        provider_ = tidewell::makeLocalFileProvider();
        (void)platform_->volume().waitUntilSettled();
    }
    ~Bench() { provider_.reset(); }

    [[nodiscard]] std::string identifier(const std::string& below) const {
        return provider_->persistentIdentifierForItemAtURL(url(below)).value_or("");
    }
    [[nodiscard]] std::vector<std::string> listed() const {
        const auto enumerator = provider_->enumeratorForContainerItemIdentifier(identifier("in"));
        if (!enumerator) bench::fail(enumerator.error().description());
        std::vector<std::string> all;
        for (const auto& page : bench::list(**enumerator)) {
            all.insert(all.end(), page.items.begin(), page.items.end());
        }
        return all;
    }
    void makeFiles(int count) const {
        for (int i = 0; i < count; ++i) {
            std::ofstream(scratch_ / "storage/in" / std::to_string(i)) << "document\n";
        }
    }

    void import(const fs::path& source) const {
        std::promise<platform::Result<platform::ItemRef>> done;
        provider_->importDocumentAtURL(platform::QSURL::fileURLWithPath(source.string()),
                                       identifier("in"),
                                       [&](auto item) { done.set_value(std::move(item)); });
        if (const auto item = done.get_future().get(); !item) {
            bench::fail(item.error().description());
        }
    }
    void trash(const std::string& item) const {
        std::promise<platform::Result<platform::ItemRef>> done;
        provider_->trashItemWithIdentifier(item, [&](auto end) { done.set_value(std::move(end)); });
        if (const auto end = done.get_future().get(); !end) bench::fail(end.error().description());
    }
    void remove(const std::string& item) const {
        std::promise<std::optional<platform::QSError>> done;
        provider_->deleteItemWithIdentifier(item,
                                            [&](auto end) { done.set_value(std::move(end)); });
        if (const auto end = done.get_future().get()) bench::fail(end->description());
    }

  private:
    static platform::QSURL url(const std::string& below) {
        return platform::QSURL::fileURLWithPath(std::string(platform::presentedStoragePath) + "/" +
                                                below);
    }

    fs::path scratch_;
    std::unique_ptr<platform::Platform> platform_;
    std::shared_ptr<platform::QSFileProviderExtension> provider_;
};

void measureImport(const fs::path& scratch, const fs::path& source) {
    Bench product(scratch);
    product.start();
    const double start = bench::now();
    product.import(source);
    bench::report("import", bench::now() - start);
}

void measureCopy(const fs::path& scratch, const fs::path& source) {
    platform::QSProgress progress;
    platform::TreeCopy copy(progress, platform::TreeCopy::Special::LeftOut);
    const platform::FileDescriptor from(
        open(source.parent_path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const platform::FileDescriptor to(open(scratch.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const double start = bench::now();
    const auto copied = copy.copy(from.get(), source.filename(), to.get(), "copy");
    if (!copied) bench::fail(copied.error().description());
    bench::report("copy", bench::now() - start);
}

void measureItems(const fs::path& scratch, int count, bool isTrash) {
    Bench product(scratch);
    product.makeFiles(count);
    product.start();
    const auto items = product.listed();
    const auto folder = product.identifier("in");
    const auto each = [&](double seconds) { return seconds * 1e6 / count; };
    double start = bench::now();
    if (!isTrash) {
        product.remove(folder);
        bench::report("folder", each(bench::now() - start));
        return;
    }
    const auto trashAll = [&](std::span<const std::string> these, int atOnce) {
        std::atomic<std::size_t> next = 0;
        std::vector<std::jthread> threads;
        for (int thread = 0; thread < atOnce; ++thread) {
            threads.emplace_back([&] {
                for (auto i = next++; i < these.size(); i = next++) product.trash(these[i]);
            });
        }
    };
    const std::span all(items);
    trashAll(all.first(all.size() / 2), 1);
    bench::report("trash", 2 * each(bench::now() - start));
    start = bench::now();
    trashAll(all.subspan(all.size() / 2), 4);
    bench::report("trashFour", 2 * each(bench::now() - start));
    start = bench::now();
    for (const auto& item : items) product.remove(item);
    bench::report("each", each(bench::now() - start));
}

}  // namespace

int main(int count, char** arguments) {
    const std::string mode = count == 4 ? arguments[1] : "";
    if (mode == "import") {
        measureImport(arguments[2], arguments[3]);
    } else if (mode == "copy") {
        measureCopy(arguments[2], arguments[3]);
    } else if (mode == "trash" || mode == "delete") {
        measureItems(arguments[2], std::atoi(arguments[3]), mode == "trash");
    } else {
        std::fputs(
            "usage: tidewell-bench-mutations import|copy|trash|delete SCRATCH SOURCE|ITEMS\n",
            stderr);
        return 2;
    }
}

#pragma once

#include <future>
#include <set>

#include "platform/fileprovider/QSFileProviderError.h"
#include "platform/tree/TreeLayout.h"
#include "tests/support/InstalledPlatform.h"
#include "tidewell/applibraries/TWPAppLibraryManager.h"
#include "tidewell/provider/LocalFileProvider.h"

namespace tests {

using namespace platform;
namespace fs = std::filesystem;

/// Paths relative to the folder, hidden ones too.
inline std::set<std::string> pathsBelow(const fs::path& folder) {
    std::set<std::string> paths;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        paths.insert(entry.path().lexically_relative(folder));
    }
    return paths;
}

inline std::pair<std::string, std::int64_t> codeOf(const QSError& error) {
    return {error.domain, error.code};
}
template <typename T>
std::pair<std::string, std::int64_t> codeOf(const Result<T>& result) {
    return result ? std::pair<std::string, std::int64_t>("", 0) : codeOf(result.error());
}

/// A provider on an installed platform with a folder "in" and, below Containers, the library of
/// "org.a". Each verb waits for its completion.
class MutationsFixture : public InstalledPlatform {
  protected:
    MutationsFixture() {
        (void)folder("in");
        start();
    }
    ~MutationsFixture() override {
        end();
        tidewell::AppLibraryRootTable::shared().replace({});
    }

    void start() {
        libraries = tidewell::AppLibraries::load();
        provider = tidewell::LocalFileProvider::init(libraries);
        showLibrariesOf({"org.a"});
    }
    /// As a refresh does, so that those of the provider find the same.
    void showLibrariesOf(const std::vector<std::string>& identifiers) {
        for (const auto& identifier : identifiers) {
            (void)installApplication(identifier, "App", "X-Quenby-SupportsDocumentBrowser=true\n");
        }
        installed->workspace().refresh();
        (void)libraries->refresh();
        for (const auto& identifier : identifiers) {
            ASSERT_TRUE(tidewell::AppLibraryRootTable::shared().bundleProxiesByRootURLs()->contains(
                libraryURL({}, identifier)));
        }
    }
    void end() {
        provider.reset();
        libraries.reset();
        mainQueue().sync([] {});
    }

    static QSURL libraryURL(const std::string& below = {}, std::string_view of = "org.a") {
        return QSURL::fileURLWithPath(libraryRootInContainer(containerURL(of)).path() + "/" +
                                      below);
    }
    fs::path library() const { return scratch / "containers/org.a/Documents"; }

    std::string id(const std::string& below) {
        return provider->persistentIdentifierForItemAtURL(url(below)).value_or("none");
    }
    std::string libraryID(const std::string& below) {
        return provider->persistentIdentifierForItemAtURL(libraryURL(below)).value_or("none");
    }
    /// The item's URL; "missing" below the root where there is none.
    QSURL place(const std::string& identifier) {
        return provider->URLForItemWithPersistentIdentifier(identifier).value_or(url("missing"));
    }

    template <typename Call>
    static Result<ItemRef> waitFor(Call call) {
        std::promise<Result<ItemRef>> done;
        call([&done](Result<ItemRef> item) { done.set_value(std::move(item)); });
        return done.get_future().get();
    }
    Result<ItemRef> create(const std::string& name, const std::string& parent) {
        return waitFor([&](auto h) { provider->createDirectoryWithName(name, parent, h); });
    }
    Result<ItemRef> import(const fs::path& path, const std::string& parent) {
        return waitFor([&](auto h) {
            provider->importDocumentAtURL(installed->files().URLForNativePath(path.string()),
                                          parent, h);
        });
    }
    Result<ItemRef> rename(const std::string& identifier, const std::string& name) {
        return waitFor([&](auto h) { provider->renameItemWithIdentifier(identifier, name, h); });
    }
    Result<ItemRef> move(const std::string& identifier, const std::string& parent,
                         const std::optional<std::string>& name = {}) {
        return waitFor(
            [&](auto h) { provider->reparentItemWithIdentifier(identifier, parent, name, h); });
    }
    Result<ItemRef> trash(const std::string& identifier) {
        return waitFor([&](auto h) { provider->trashItemWithIdentifier(identifier, h); });
    }
    Result<ItemRef> untrash(const std::string& identifier,
                            const std::optional<std::string>& parent = {}) {
        return waitFor([&](auto h) { provider->untrashItemWithIdentifier(identifier, parent, h); });
    }
    std::optional<QSError> remove(const std::string& identifier) {
        std::promise<std::optional<QSError>> done;
        provider->deleteItemWithIdentifier(identifier,
                                           [&](auto error) { done.set_value(std::move(error)); });
        return done.get_future().get();
    }

    std::shared_ptr<tidewell::AppLibraries> libraries;
    std::shared_ptr<tidewell::LocalFileProvider> provider;
};

}  // namespace tests

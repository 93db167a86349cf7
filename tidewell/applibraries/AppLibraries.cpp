#include "tidewell/applibraries/AppLibraries.h"

#include "platform/fileprovider/Platform.h"
#include "tidewell/applibraries/Registrar.h"
#include "tidewell/common/Logging.h"

namespace tidewell {

namespace {

std::shared_ptr<LocalAppLibraryCache> makeCache(std::string_view name) {
    return std::make_shared<LocalAppLibraryCache>(
        name, Platform::current().folders().applicationSupport + "/Tidewell/" + std::string(name) +
                  ".plist");
}

bool loadCache(LocalAppLibraryCache& cache) {
    bool isLoaded = false;
    cache.queue().sync([&] { isLoaded = cache.load(); });
    return isLoaded;
}

/// What was left unfinished in a library could not be reached before that was known.
void finishWhatWasLeft() {
    if (!TWPAppLibraryManager::rootURLsForAppLibraries().empty()) {
        Platform::current().finishWhatWasLeft();
    }
}

/// The table last, so that every root in it can be looked into. What cannot be let in is logged
/// below, and looked for again.
void show(const std::vector<BundleRef>& bundles) {
    (void)Platform::current().containers().show(bundles);
    AppLibraryRootTable::shared().replace(rootsOf(bundles));
}

}  // namespace

AppLibraries::AppLibraries(LocalAppLibraryManager::Source source)
    : source_(std::move(source)),
      main_(makeCache("app-libraries")),
      workingSet_(makeCache("searchable-app-libraries")) {}

std::shared_ptr<AppLibraries> AppLibraries::load() {
    return load(retrieveAppLibraries);
}

std::shared_ptr<AppLibraries> AppLibraries::load(LocalAppLibraryManager::Source source) {
    std::shared_ptr<AppLibraries> libraries(new AppLibraries(std::move(source)));
    const bool isLoaded = loadCache(*libraries->main_);
    (void)loadCache(*libraries->workingSet_);
    libraries->mainManager_ = std::make_unique<LocalAppLibraryManager>(libraries->main_);
    libraries->sharedManager_ = std::make_unique<LocalAppLibraryManager>(libraries->workingSet_);
    // With nothing to go by it is the registry that says what of the last run is still there.
    if (isLoaded || !libraries->refresh().value_or(false)) {
        show(libraries->main_->content().bundleProxies);
        finishWhatWasLeft();
    }
    return libraries;
}

AppLibraries::~AppLibraries() {
    AppLibraryRootTable::shared().replace({});
}

Result<bool> AppLibraries::refresh() {
    const auto changed = mainManager_->refresh(source_, show);
    const bool isUnsaved = !changed && main_->versionToken() == 0;
    if (!changed.value_or(false) && !isUnsaved) {
        // The source may have made a folder that was missing.
        Platform::current().containers().lookAgain();
        return changed;
    }
    finishWhatWasLeft();
    std::vector<std::shared_ptr<std::function<void()>>> reached;
    {
        const std::scoped_lock lock(mutex_);
        std::erase_if(listeners_, [](const auto& listener) { return listener.expired(); });
        for (const auto& listener : listeners_) {
            if (auto alive = listener.lock()) reached.push_back(std::move(alive));
        }
    }
    for (const auto& listener : reached) (*listener)();
    return changed;
}

AppLibraryUpgrade AppLibraries::upgradeShared() {
    return sharedManager_->upgradeFromMainCache(*main_).value_or(AppLibraryUpgrade{});
}

std::shared_ptr<void> AppLibraries::listen(std::function<void()> listener) {
    auto kept = std::make_shared<std::function<void()>>(std::move(listener));
    const std::scoped_lock lock(mutex_);
    // Those that went would stay until a refresh, which may not come for days.
    if (listeners_.size() == listeners_.capacity()) {
        std::erase_if(listeners_, [](const auto& known) { return known.expired(); });
    }
    listeners_.push_back(kept);
    return kept;
}

}  // namespace tidewell

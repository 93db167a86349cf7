#include "platform/registry/QLApplicationWorkspace.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <set>

#include "platform/foundation/fatalError.h"
#include "platform/registry/ApplicationSet.h"
#include "platform/registry/FolderWatcher.h"
#include "platform/registry/UserOverrides.h"

namespace platform {

namespace {

using SetRef = std::shared_ptr<const ApplicationSet>;

bool hasFlag(const QLBundleProxy& bundle) {
    return bundle.supportsDocumentBrowser || bundle.supportsOpenInPlace ||
           bundle.fileSharingEnabled;
}

struct Difference {
    bool isRegistered = false;
    bool isUnregistered = false;
};

Difference differenceOf(const ApplicationSet& before, const ApplicationSet& now) {
    Difference difference;
    for (const auto& application : now.applications) {
        const auto former = before.find(*application->bundleIdentifier);
        difference.isRegistered |= !former || !(*former == *application);
    }
    for (const auto& application : before.applications) {
        const auto kept = now.find(*application->bundleIdentifier);
        difference.isUnregistered |=
            !kept || kept->bundleIdentifier != application->bundleIdentifier;
    }
    return difference;
}

}  // namespace

struct QLApplicationWorkspace::State {
    explicit State(Configuration given)
        : configuration(std::move(given)),
          reader(configuration.sources.languages),
          watcher({configuration.rest, configuration.most, configuration.period,
                   configuration.unwatchedPeriod},
                  configuration.mostWatches) {}

    SetRef current();
    void refresh();
    [[nodiscard]] ApplicationSet read();
    [[nodiscard]] std::map<std::string, SupportFlags, std::less<>> readOverrides();
    void report(const ApplicationSet& set);

    // Constant after construction.
    const Configuration configuration;

    std::mutex readingMutex;  // before setMutex
    // Guarded by readingMutex.
    EntryReader reader;
    std::set<std::string> reported;
    bool isFollowing = false;
    bool isStopped = false;

    std::mutex setMutex;
    SetRef latest;  // guarded by setMutex; null before the first reading

    FolderWatcher watcher;  // has its own synchronisation; the first to go
};

std::map<std::string, SupportFlags, std::less<>> QLApplicationWorkspace::State::readOverrides() {
    std::map<std::string, SupportFlags, std::less<>> overrides;
    const auto& folder = configuration.sources.overrides;
    if (folder.empty()) return overrides;
    for (const auto& file : reader.read(folder, overrideSuffix, false,
                                        [this](const auto& path) { watcher.add(path); })) {
        if (isBundleIdentifier(file.name)) overrides.emplace(file.name, file.entry->flags);
    }
    return overrides;
}

ApplicationSet QLApplicationWorkspace::State::read() {
    const auto& sources = configuration.sources;
    const auto watch = [this](const std::string& path) { watcher.add(path); };
    std::vector<std::string> others;
    reader.begin();
    watcher.begin();
    watch(sources.flatpakInstallations);
    ApplicationSetMaker maker(sources, configuration.presentContainer);
    for (const auto& folder : applicationFolders(sources, others)) {
        maker.add(folder,
                  reader.read(folder.path + "/applications", desktopEntrySuffix, true, watch));
    }
    for (const auto& path : others) watch(path);
    watch(sources.containers);
    auto set = maker.make(readOverrides());
    // One whose container comes, goes or is replaced.
    for (const auto& application : set.applications) {
        if (hasFlag(*application)) watch(application->dataContainerPath);
    }
    watcher.end();
    reader.end();
    return set;
}

void QLApplicationWorkspace::State::report(const ApplicationSet& now) {
    auto troubles = reader.troubles();
    for (const auto& application : now.applications) {
        if (!application->containerTrouble || !hasFlag(*application)) continue;
        troubles.insert("can't show the documents of " + *application->bundleIdentifier + "; " +
                        *application->containerTrouble);
    }
    if (configuration.report) {
        for (const auto& trouble : troubles) {
            if (!reported.contains(trouble)) configuration.report(trouble);
        }
    }
    reported = std::move(troubles);
}

void QLApplicationWorkspace::State::refresh() {
    Difference difference;
    {
        const std::scoped_lock reading(readingMutex);
        auto fresh = std::make_shared<const ApplicationSet>(read());
        report(*fresh);
        const std::scoped_lock lock(setMutex);
        // Nothing has been reported to anybody before the first reading.
        if (latest) difference = differenceOf(*latest, *fresh);
        latest = std::move(fresh);
    }
    if (configuration.afterReading) configuration.afterReading();
    if (!configuration.notifications) return;
    if (difference.isRegistered) {
        configuration.notifications->post(applicationRegisteredNotification);
    }
    if (difference.isUnregistered) {
        configuration.notifications->post(applicationUnregisteredNotification);
    }
}

SetRef QLApplicationWorkspace::State::current() {
    const auto get = [this] {
        const std::scoped_lock lock(setMutex);
        return latest;
    };
    if (auto known = get()) return known;
    {
        const std::scoped_lock reading(readingMutex);
        if (auto known = get()) return known;
        auto fresh = std::make_shared<const ApplicationSet>(read());
        report(*fresh);
        const std::scoped_lock lock(setMutex);
        latest = std::move(fresh);
    }
    return get();
}

namespace {

std::atomic<QLApplicationWorkspace*> ofProcess = nullptr;

}  // namespace

QLApplicationWorkspace& QLApplicationWorkspace::defaultWorkspace() {
    auto* workspace = ofProcess.load(std::memory_order_acquire);
    if (!workspace) fatalError("there is no default workspace");
    return *workspace;
}

void QLApplicationWorkspace::makeDefault() {
    ofProcess.store(this, std::memory_order_release);
}

QLApplicationWorkspace::QLApplicationWorkspace(Configuration configuration)
    : state_(std::make_unique<State>(std::move(configuration))) {}

QLApplicationWorkspace::~QLApplicationWorkspace() {
    stop();
    auto* self = this;
    ofProcess.compare_exchange_strong(self, nullptr);
}

void QLApplicationWorkspace::follow() {
    const std::scoped_lock lock(state_->readingMutex);
    if (state_->isFollowing || state_->isStopped) return;
    state_->isFollowing = true;
    state_->watcher.start([this] { state_->refresh(); });
}

void QLApplicationWorkspace::stop() {
    {
        const std::scoped_lock lock(state_->readingMutex);
        state_->isStopped = true;
    }
    state_->watcher.stop();
}

void QLApplicationWorkspace::refresh() {
    state_->refresh();
}

void QLApplicationWorkspace::enumerateApplicationsOfType(
    QLApplicationType type, const std::function<void(const ApplicationRef&)>& block) const {
    const auto set = state_->current();
    for (const auto& application : set->applications) {
        if (application->applicationType == type) block(application);
    }
}

ApplicationRef QLApplicationWorkspace::applicationProxyForIdentifier(
    std::string_view identifier) const {
    return state_->current()->find(identifier);
}

BundleRef QLApplicationWorkspace::bundleProxyForIdentifier(std::string_view identifier) const {
    return applicationProxyForIdentifier(identifier);
}

Result<void> QLApplicationWorkspace::setOverride(std::string_view identifier, Override given) {
    if (!isBundleIdentifier(identifier)) return std::unexpected(errorFromErrno(EINVAL, identifier));
    const auto& folder = state_->configuration.sources.overrides;
    const auto installed = applicationProxyForIdentifier(identifier);
    if (!installed && given != Override::Remove) {
        auto error = errorFromErrno(ENOENT);
        error.userInfo.emplace(
            QSDescriptionErrorKey,
            "no application with the identifier " + std::string(identifier) + " is installed");
        return std::unexpected(std::move(error));
    }
    // Of an application that was renamed, the present name counts.
    const auto name = installed ? *installed->bundleIdentifier : std::string(identifier);
    Result<void> done;
    switch (given) {
        case Override::Allow:
            done = writeOverride(folder, name, {true, std::nullopt, std::nullopt});
            break;
        case Override::Deny:
            done = writeOverride(folder, name, {false, false, false});
            break;
        case Override::Remove:
            done = removeOverride(folder, name);
            if (done) done = removeOverride(folder, identifier);
            break;
    }
    if (done) refresh();
    return done;
}

bool QLApplicationWorkspace::isWatchedWhole() const {
    return state_->watcher.isWhole();
}

}  // namespace platform

#include "tests/convergence/Product.h"

#include <sys/xattr.h>

#include <array>
#include <filesystem>
#include <fstream>

#include "host/local/LocalSession.h"
#include "platform/dispatch/Queue.h"
#include "platform/fileprovider/QSFileProviderItem.h"
#include "platform/files/AttributeReader.h"
#include "platform/files/ExtendedAttributes.h"
#include "platform/foundation/QSKeyedArchiver.h"
#include "tidewell/provider/InstalledApps.h"
#include "tidewell/provider/LocalFileProvider.h"

namespace tests {

using platform::KernelEventSource;
using platform::Result;
using platform::VolumeService;

Product::Product(std::string base, std::string stores, std::shared_ptr<KernelScript> script,
                 bool isManual, bool isServed)
    : base_(std::move(base)),
      stores_(std::move(stores)),
      script_(std::move(script)),
      isManual_(isManual),
      isServed_(isServed) {}

std::string Product::start() {
    const std::unique_lock life(life_);
    const auto adjust = [this](VolumeService::Configuration& volume) {
        volume.makeSource = [script = script_]() -> Result<std::unique_ptr<KernelEventSource>> {
            auto kernel = platform::makeInotifySource();
            if (!kernel) return kernel;
            return std::make_unique<ScriptedKernel>(std::move(*kernel), script);
        };
        volume.isManual = isManual_;
        if (!isManual_) return;
        volume.now = [this] {
            return std::chrono::steady_clock::time_point(std::chrono::milliseconds(clock_));
        };
    };
    platform::RegistrySources applications;
    applications.dataHome = stores_ + "/share";
    applications.containers = base_ + "/l";
    auto made = platform::Platform::make({.folders = {.storage = base_ + "/s",
                                                      .data = stores_ + "/data",
                                                      .state = stores_ + "/state",
                                                      .cache = stores_ + "/cache",
                                                      .config = stores_ + "/config",
                                                      .applicationSupport = stores_ + "/apps"},
                                          .followsAtStart = !isManual_,
                                          .applications = applications,
                                          .adjustVolume = adjust});
    if (!made) return made.error().description();
    platform_ = std::move(*made);
    platform_->install();
    libraries_ = tidewell::AppLibraries::load();
    if (isManual_) refreshApplications();  // as the provider does, but now
    std::unique_ptr<host::Session> session = std::make_unique<host::LocalSession>(
        [this] { return tidewell::makeLocalFileProvider(libraries_); });
    if (isServed_) {
        served_ = std::make_unique<Served>(std::move(session), serviceFolder());
        session = served_->connect();
    }
    service_ = std::make_unique<host::DocumentService>(std::move(session));
    if (!isManual_) {
        auto following = service_->session().follow(
            std::string(platform::QSFileProviderWorkingSetContainerItemIdentifier));
        if (!following) return following.error().description();
        following_ = std::move(*following);
    }
    // Changes wait until the past is known.
    for (int i = 0; isManual_ && !platform_->volume().isCaughtUp(); ++i) {
        if (i == 10'000) return "it never catches up";
        platform_->volume().step();
    }
    return {};
}

void Product::stop() {
    const std::unique_lock life(life_);
    following_.reset();
    service_.reset();
    served_.reset();
    std::filesystem::remove_all(serviceFolder());
    libraries_.reset();
    platform::mainQueue().sync([] {});
    platform_.reset();
}

void Product::kill() {
    namespace fs = std::filesystem;
    const fs::path now = stores_, copy = stores_ + ".killed";
    fs::copy(now, copy, fs::copy_options::recursive);
    const std::string storage = base_ + "/s";
    const auto name = platform::storedAttributeName(platform::folderWitnessAttribute);
    std::array<char, 512> witness;
    const auto size = getxattr(storage.c_str(), name.c_str(), witness.data(), witness.size());
    stop();
    if (size > 0) {
        (void)setxattr(storage.c_str(), name.c_str(), witness.data(),
                       static_cast<std::size_t>(size), 0);
    }
    fs::remove_all(now);
    fs::rename(copy, now);
}

void Product::step() {
    if (isManual_) platform_->volume().step();
}

std::string Product::entryOf(const std::string& application) const {
    return stores_ + "/share/applications/" + application + ".desktop";
}

void Product::install(const std::string& application) {
    std::filesystem::create_directories(stores_ + "/share/applications");
    std::ofstream(entryOf(application)) << "[Desktop Entry]\nType=Application\nName=" << application
                                        << "\nX-Quenby-SupportsDocumentBrowser=true\n";
    applications_.insert(application);
    if (isManual_ && isRunning()) refreshApplications();
}

void Product::uninstall(const std::string& application) {
    std::filesystem::remove(entryOf(application));
    applications_.erase(application);
    if (!isManual_ || !isRunning()) return;
    // What left before has been reported then: a real queue is complete.
    script().setCalm(true);
    refreshApplications();
    script().setCalm(false);
}

std::expected<std::string, int> Product::perform(const std::string& verb, const std::string& at,
                                                 const std::string& to) {
    const std::shared_lock life(life_);
    if (!isRunning()) return std::unexpected(ENOTCONN);
    const auto& mutations = service_->mutations();
    const auto on = [&](const std::string& path, const auto& act) -> Result<host::ItemRecord> {
        const auto identifier = service_->resolve(path);
        if (!identifier) return std::unexpected(identifier.error());
        return act(*identifier);
    };
    const auto folderOf = [](const std::string& path) { return path.substr(0, path.rfind('/')); };
    const auto nameOf = [](const std::string& path) { return path.substr(path.rfind('/') + 1); };
    Result<host::ItemRecord> item;
    if (verb == "mkdir") {
        item = on(folderOf(at), [&](const std::string& parent) {
            return mutations.makeDirectory(nameOf(at), parent);
        });
    } else if (verb == "mv") {
        item = on(at, [&](const std::string& moved) {
            return on(folderOf(to), [&](const std::string& parent) {
                return mutations.move(moved, parent, nameOf(to), {});
            });
        });
    } else {
        item = on(at, [&](const std::string& found) -> Result<host::ItemRecord> {
            if (verb == "trash") return mutations.trash(found, {});
            const auto done = mutations.remove(found, {});
            if (!done) return std::unexpected(done.error());
            return host::ItemRecord{};
        });
    }
    if (!item) return std::unexpected(EPERM);
    if (item->itemIdentifier.empty()) return std::string();
    if (isManual_) script().setCalm(true);
    const auto place = service_->path(item->itemIdentifier);
    if (isManual_) script().setCalm(false);
    return place ? *place : to;  // out of sight
}

void Product::refreshApplications() {
    platform_->workspace().refresh();
    tidewell::refreshInstalledApps(*libraries_);
}

bool Product::isSignalled() {
    return isManual_ || following_->wait(std::chrono::milliseconds(1));
}

std::string Product::waitUntilSettled() {
    refreshApplications();
    auto& volume = platform_->volume();
    if (!isManual_) {
        // Its clock does not come to the next look at what is not watched.
        (void)volume.waitUntilSeenLooking({});
        const auto settled = volume.waitUntilSettled();
        return settled ? std::string() : settled.error().description();
    }
    // Longer than from one look at what is not watched to the next, and then to a decision.
    for (int seconds = 0; seconds < 100; ++seconds) {
        advance(std::chrono::seconds(1));
        for (int rounds = 0; volume.step(); ++rounds) {
            if (rounds == 10'000) return "it never comes to rest";
        }
    }
    return {};
}

std::string Product::tagAttribute() {
    return "user.com.quenby.metadata:_kMDItemUserTags";
}

std::string Product::tagValue() {
    const auto value = platform::archivedDataWithRootObject(
        platform::QSPropertyList::Array{platform::QSPropertyList("late")});
    return std::string(platform::stringFromData(*value));
}

}  // namespace tests

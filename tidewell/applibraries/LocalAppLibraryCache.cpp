#include "tidewell/applibraries/LocalAppLibraryCache.h"

#include <limits>

#include "platform/files/DataFile.h"
#include "platform/foundation/QSKeyedArchiver.h"
#include "platform/foundation/QSKeyedUnarchiver.h"
#include "tidewell/common/Logging.h"

namespace tidewell {

namespace {

constexpr std::string_view versionTokenKey = "versionToken";
constexpr std::string_view bundleProxyKey = "bundleProxy";
constexpr std::string_view identifierKey = "bundleIdentifier";
constexpr std::string_view containerURLKey = "dataContainerURL";
constexpr std::string_view containerPathKey = "dataContainerPath";
constexpr std::string_view displayNameKey = "displayName";

constexpr std::size_t mebibyte = std::size_t{1024} * 1024;

/// Room for some ten thousand applications.
constexpr QSPropertyListLimits cacheLimits{
    .bytes = 16 * mebibyte, .depth = 8, .objects = 400'000, .expandedBytes = 128 * mebibyte};

/// Far beyond what counting reaches: with more, the version could wrap.
constexpr std::uint64_t largestVersion = std::numeric_limits<std::uint64_t>::max() / 2;

constexpr ArchiveClasses cacheClasses{ArchiveClass::Dictionary, ArchiveClass::Array,
                                      ArchiveClass::String, ArchiveClass::Number};

QSPropertyList recordOf(const QLBundleProxy& bundle) {
    QSPropertyList::Dictionary record;
    record.emplace(identifierKey, bundle.bundleIdentifier.value_or(""));
    if (bundle.dataContainerURL) record.emplace(containerURLKey, bundle.dataContainerURL->path());
    record.emplace(containerPathKey, bundle.dataContainerPath);
    if (bundle.displayName) record.emplace(displayNameKey, *bundle.displayName);
    return record;
}

/// Null for what is no record.
BundleRef bundleOf(const QSPropertyList& record) {
    const auto text = [&](std::string_view key) {
        const auto* value = record.find(key);
        return value ? value->asString() : nullptr;
    };
    const auto* identifier = text(identifierKey);
    const auto* url = text(containerURLKey);
    const auto* path = text(containerPathKey);
    if (!identifier || !url || !path) return nullptr;
    QLBundleProxy bundle;
    bundle.bundleIdentifier = *identifier;
    bundle.dataContainerURL = QSURL::fileURLWithPath(*url);
    bundle.dataContainerPath = *path;
    if (const auto* name = text(displayNameKey)) bundle.displayName = *name;
    return std::make_shared<const QLBundleProxy>(std::move(bundle));
}

std::optional<std::vector<BundleRef>> bundlesOf(const QSPropertyList* list) {
    const auto* records = list ? list->asArray() : nullptr;
    if (!records) return std::nullopt;
    std::vector<BundleRef> bundles;
    bundles.reserve(records->size());
    for (const auto& record : *records) {
        auto bundle = bundleOf(record);
        if (!bundle) return std::nullopt;
        bundles.push_back(std::move(bundle));
    }
    return bundles;
}

Result<QSPropertyList> decoded(const std::string& path) {
    const auto data = dataWithContentsOfFile(path, cacheLimits.bytes);
    if (!data) return std::unexpected(data.error());
    logDebug(
        [&] { return "read from disk " + std::to_string(data->size()) + " bytes at " + path; });
    return unarchivedObjectOfClasses(cacheClasses, *data, cacheLimits);
}

}  // namespace

LocalAppLibraryCache::LocalAppLibraryCache(std::string_view name, std::string path)
    : queue_("tidewell.app-library-cache." + std::string(name)), cacheURL_(std::move(path)) {}

bool LocalAppLibraryCache::resetAfterFailure() {
    bundleProxies_.clear();
    _versionToken = 0;
    return false;
}

bool LocalAppLibraryCache::load() {
    queue_.assertOnQueue();
    const auto root = decoded(cacheURL_);
    if (!root) {
        logInfo(
            [&] { return "can't load cache from disk let's reset;" + root.error().description(); });
        return resetAfterFailure();
    }
    const auto* records = root->asDictionary();
    if (!records) {
        logInfo("can't load cache from disk let's reset;the root is no dictionary");
        return resetAfterFailure();
    }
    if (records->empty()) {
        logInfo("nothing cached on disk");
        bundleProxies_.clear();
        return false;
    }
    const auto* number = root->find(versionTokenKey);
    const auto versionToken = number ? number->asUnsigned() : std::nullopt;
    if (!versionToken || *versionToken > largestVersion) {
        logError("version token invalid; data on disk is corrupted let's reset");
        return resetAfterFailure();
    }
    auto bundles = bundlesOf(root->find(bundleProxyKey));
    if (!bundles) {
        logError("bundle proxies invalid; data on disk is corrupted let's reset");
        return resetAfterFailure();
    }
    bundleProxies_ = std::move(*bundles);
    logInfo([&] {
        return "loaded " + std::to_string(bundleProxies_.size()) + " app library items from data";
    });
    if (_versionToken < *versionToken) {
        _versionToken = *versionToken;
        logInfo([&] {
            return "version token was set to " + std::to_string(_versionToken) + " after load";
        });
    }
    return true;
}

AppLibraryContent LocalAppLibraryCache::content() const {
    AppLibraryContent content;
    queue_.sync([&] { content = {bundleProxies_, _versionToken}; });
    return content;
}

std::uint64_t LocalAppLibraryCache::versionToken() const {
    std::uint64_t versionToken = 0;
    queue_.sync([&] { versionToken = _versionToken; });
    return versionToken;
}

void LocalAppLibraryCache::setVersionToken(std::uint64_t versionToken) {
    queue_.sync([&] { _versionToken = versionToken; });
}

Result<void> LocalAppLibraryCache::save(std::vector<BundleRef> bundleProxies,
                                        std::uint64_t versionToken) {
    const auto saved = update(
        [&](const AppLibraryContent&) {
            return std::optional(AppLibraryContent{std::move(bundleProxies), versionToken});
        },
        {});
    if (!saved) return std::unexpected(saved.error());
    return {};
}

Result<bool> LocalAppLibraryCache::update(const Change& change, const Written& written) {
    Result<bool> result = false;
    queue_.sync([&] {
        const AppLibraryContent before{bundleProxies_, _versionToken};
        auto now = change(before);
        if (!now) return;
        if (auto done = write(*now); !done) {
            result = std::unexpected(std::move(done.error()));
            return;
        }
        if (written) written(*now);
        bundleProxies_ = std::move(now->bundleProxies);
        _versionToken = now->versionToken;
        result = true;
    });
    return result;
}

void LocalAppLibraryCache::setUnsaved(
    const std::vector<BundleRef>& bundleProxies,
    const std::function<void(const std::vector<BundleRef>&)>& show) {
    queue_.sync([&] {
        show(bundleProxies);
        bundleProxies_ = bundleProxies;
        _versionToken = 0;
    });
}

Result<void> LocalAppLibraryCache::write(const AppLibraryContent& content) {
    const LogSection section([&] { return "saving bundle proxies to " + cacheURL_; });
    QSPropertyList::Array records;
    records.reserve(content.bundleProxies.size());
    for (const auto& bundle : content.bundleProxies) records.push_back(recordOf(*bundle));
    QSPropertyList::Dictionary root;
    root.emplace(versionTokenKey, content.versionToken);
    root.emplace(bundleProxyKey, std::move(records));
    const auto data = archivedDataWithRootObject(root);
    if (!data) return std::unexpected(data.error());
    if (auto written = writeDataAtomically(*data, cacheURL_); !written) return written;
    logDebug(
        [&] { return "wrote on disk " + std::to_string(data->size()) + " bytes at " + cacheURL_; });
    return {};
}

void LocalAppLibraryCache::reset() {
    queue_.sync([&] { (void)resetAfterFailure(); });
}

}  // namespace tidewell

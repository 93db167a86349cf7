#include "platform/registry/QLApplicationWorkspace.h"

namespace platform {

BundleRef QLApplicationWorkspace::bundleProxyForIdentifier(std::string_view identifier) const {
    const std::scoped_lock lock(mutex_);
    const auto found = bundles_.find(identifier);
    return found == bundles_.end() ? nullptr : found->second;
}

std::vector<BundleRef> QLApplicationWorkspace::allBundles() const {
    const std::scoped_lock lock(mutex_);
    std::vector<BundleRef> all;
    all.reserve(bundles_.size());
    for (const auto& [identifier, bundle] : bundles_) all.push_back(bundle);
    return all;
}

void QLApplicationWorkspace::registerApplication(BundleRef bundle) {
    const std::scoped_lock lock(mutex_);
    bundles_.insert_or_assign(bundle->bundleIdentifier.value(), std::move(bundle));
}

void QLApplicationWorkspace::unregisterApplication(std::string_view identifier) {
    const std::scoped_lock lock(mutex_);
    if (const auto found = bundles_.find(identifier); found != bundles_.end()) {
        bundles_.erase(found);
    }
}

}  // namespace platform

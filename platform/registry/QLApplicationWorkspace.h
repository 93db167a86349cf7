#pragma once

#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/registry/QLBundleProxy.h"

namespace platform {

/// The applications registered in this process. Any thread.
class QLApplicationWorkspace {
  public:
    /// The record with that identifier; null where none is registered.
    [[nodiscard]] BundleRef bundleProxyForIdentifier(std::string_view identifier) const;

    /// Every record, sorted by identifier.
    [[nodiscard]] std::vector<BundleRef> allBundles() const;

    /// Adds or replaces the record of its identifier. REQUIRES: it has one.
    void registerApplication(BundleRef bundle);
    void unregisterApplication(std::string_view identifier);

  private:
    mutable std::mutex mutex_;
    std::map<std::string, BundleRef, std::less<>> bundles_;  // guarded by mutex_
};

}  // namespace platform

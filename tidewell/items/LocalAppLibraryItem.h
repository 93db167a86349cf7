#pragma once

#include <memory>

#include "platform/registry/QLBundleProxy.h"
#include "tidewell/items/LocalItem.h"

namespace tidewell {

/// The folder of one app library, named and identified by its application.
class LocalAppLibraryItem final : public LocalItem {
  public:
    /// Null, after a log line, for a record without a data container or without its "Documents".
    [[nodiscard]] static std::shared_ptr<LocalAppLibraryItem> initFrom(const QLBundleProxy& bundle);

    // A library has no other way to be made: these end the process.
    [[noreturn]] static std::shared_ptr<LocalItem> initWithURL(
        const QSURL& url, const Custom& custom = {}, bool hasBeaconDomainIdentifier = true,
        const std::optional<std::string>& bundleIdentifier = {});
    [[noreturn]] static std::shared_ptr<LocalItem> initWithFileIdentifier(std::uint64_t fileID);

    [[nodiscard]] bool qp_isContainer() const override { return true; }

  private:
    LocalAppLibraryItem() = default;
    [[nodiscard]] std::string_view className() const override { return "LocalAppLibraryItem"; }
    void leaveOutHiddenEntries(const QSURL& url);
};

}  // namespace tidewell

#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/foundation/QSURL.h"

namespace platform {

inline constexpr std::string_view supportsDocumentBrowserInfoKey = "UISupportsDocumentBrowser";

/// Some of an application's info keys; missing ones are false.
class QLInfoDictionary {
  public:
    void set(std::string_view key, bool value) {
        values_.insert_or_assign(std::string(key), value);
    }
    [[nodiscard]] bool boolForKey(std::string_view key) const {
        const auto found = values_.find(key);
        return found != values_.end() && found->second;
    }

  private:
    std::map<std::string, bool, std::less<>> values_;
};

/// One installed application as the registry knows it. Immutable; shared between threads.
struct QLBundleProxy {
    std::optional<std::string> bundleIdentifier;
    /// As presented once the application is let in. Missing for one whose container cannot be part
    /// of the tree; then `containerTrouble` says why.
    std::optional<QSURL> dataContainerURL;
    std::optional<std::string> displayName;

    std::string dataContainerPath = {};  ///< native; need not exist yet
    // What the application supports, or the user's override says instead.
    bool supportsDocumentBrowser = false;
    bool supportsOpenInPlace = false;
    bool fileSharingEnabled = false;
    bool hasOverride = false;  ///< the user has set some of the three
    std::optional<std::string> containerTrouble = {};

    /// The full name in the user's language; missing where the registry has none.
    [[nodiscard]] std::optional<std::string> localizedName() const { return displayName; }

    /// Those of the keys that are known.
    [[nodiscard]] QLInfoDictionary objectsForInfoDictionaryKeys(
        std::span<const std::string_view> keys) const {
        QLInfoDictionary dictionary;
        if (std::ranges::find(keys, supportsDocumentBrowserInfoKey) != keys.end()) {
            dictionary.set(supportsDocumentBrowserInfoKey, supportsDocumentBrowser);
        }
        return dictionary;
    }

    friend bool operator==(const QLBundleProxy&, const QLBundleProxy&) = default;
};

using BundleRef = std::shared_ptr<const QLBundleProxy>;

}  // namespace platform

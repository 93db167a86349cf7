#pragma once

#include <optional>
#include <string>
#include <utility>

namespace host {

/// What a call is about: an item and, where the caller knows it, the name under which the item was
/// shown. An item has several names where its document has hard links.
struct ItemTarget {
    struct Entry {
        std::string parentItemIdentifier;
        std::string filename;
    };

    std::string itemIdentifier;
    std::optional<Entry> entry = {};

    // One without an entry is written as its identifier.
    ItemTarget(std::string identifier)  // NOLINT(google-explicit-constructor)
        : itemIdentifier(std::move(identifier)) {}
    ItemTarget(std::string identifier, Entry shownAs)
        : itemIdentifier(std::move(identifier)), entry(std::move(shownAs)) {}
};

}  // namespace host

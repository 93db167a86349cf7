#include "host/documents/Listing.h"

#include <algorithm>
#include <array>
#include <deque>
#include <string_view>
#include <unordered_set>

#include "host/session/Session.h"
#include "host/session/errors.h"
#include "platform/fileprovider/QSFileProviderItem.h"

namespace host {

using platform::Result;

namespace {

constexpr std::uint32_t triesOfRecursiveContainer = 3;
constexpr std::uint32_t triesOfFolder = 8;

/// The pause before try number `next` (the first try is 1).
std::chrono::milliseconds pauseBefore(std::uint32_t next) {
    constexpr std::array<int, 3> pauses{10, 50, 250};
    return std::chrono::milliseconds(pauses[std::min<std::size_t>(next - 2, pauses.size() - 1)]);
}

}  // namespace

void DeliveredItems::beginTry() {
    ++tries_;
    metInThisTry_.clear();
    if (tries_ != 2) return;
    for (std::string_view rest = firstTry_; !rest.empty();) {
        const auto end = rest.find('\0');
        ++delivered_[std::string(rest.substr(0, end))];
        rest.remove_prefix(end + 1);
    }
    firstTry_ = {};
}

bool DeliveredItems::accept(const std::string& identifier) {
    if (tries_ < 2) {
        firstTry_ += identifier;
        firstTry_ += '\0';
        return true;
    }
    const auto met = ++metInThisTry_[identifier];
    auto& delivered = delivered_[identifier];
    if (met <= delivered) return false;
    delivered = met;
    return true;
}

Result<void> Listing::run(const std::string& container, Order order) {
    const bool isRecursive =
        container == platform::QSFileProviderWorkingSetContainerItemIdentifier ||
        container == platform::QSFileProviderAllDirectoriesContainerItemIdentifier;
    DeliveredItems delivered;
    auto result = retry(container, order, isRecursive ? triesOfRecursiveContainer : triesOfFolder,
                        delivered, handler_);
    if (!isRecursive || result || !meansExpired(result.error())) return result;
    return folderByFolder(container, order, delivered);
}

Result<void> Listing::tryOnce(const std::string& container, Order order,
                              const ItemHandler& handler) {
    for (PageStart start = order;;) {
        auto page = session_.page(container, start);
        for (const auto& item : page.items) {
            if (handler(item)) continue;
            stopped_ = true;
            return {};
        }
        if (!page.next) return std::unexpected(std::move(page.next.error()));
        if (!*page.next) return {};
        start = std::move(**page.next);
    }
}

Result<void> Listing::retry(const std::string& container, Order order, std::uint32_t tries,
                            DeliveredItems& delivered, const ItemHandler& handler) {
    const auto giveOut = [&](const ItemRecord& item) {
        return !delivered.accept(item.itemIdentifier) || handler(item);
    };
    for (std::uint32_t attempt = 1;; ++attempt) {
        delivered.beginTry();
        auto result = tryOnce(container, order, giveOut);
        if (result || !meansExpired(result.error()) || attempt == tries) return result;
        wait_(pauseBefore(attempt + 1));
    }
}

Result<void> Listing::folderByFolder(const std::string& container, Order order,
                                     DeliveredItems& delivered) {
    const bool foldersOnly =
        container == platform::QSFileProviderAllDirectoriesContainerItemIdentifier;
    delivered.beginTry();
    const auto giveOut = [&](const ItemRecord& item) {
        return (foldersOnly && !item.isFolder()) || !delivered.accept(item.itemIdentifier) ||
               handler_(item);
    };

    const std::string root(platform::QSFileProviderRootContainerItemIdentifier);
    std::deque<std::string> folders{root};
    std::unordered_set<std::string> known{
        root};  // a folder that moves during the listing is met twice

    while (!folders.empty() && !stopped_) {
        const auto folder = std::move(folders.front());
        folders.pop_front();
        DeliveredItems ofFolder;
        auto result = retry(folder, order, triesOfFolder, ofFolder, [&](const ItemRecord& item) {
            if (item.isFolder()) {
                if (!known.insert(item.itemIdentifier).second) return true;
                folders.push_back(item.itemIdentifier);
            }
            return giveOut(item);
        });
        // A folder that was removed after its parent was read has nothing to show.
        if (!result && (folder == root || !meansNoSuchItem(result.error()))) return result;
    }
    return foldersOnly ? Result<void>() : trash(order, giveOut);
}

Result<void> Listing::trash(Order order, const ItemHandler& handler) {
    const auto containers = session_.trashContainers();
    if (!containers) return std::unexpected(containers.error());
    for (const auto& container : *containers) {
        if (stopped_) break;
        DeliveredItems ofTrash;
        auto result = retry(container, order, triesOfFolder, ofTrash, handler);
        if (!result && !meansNoSuchItem(result.error())) return result;
    }
    return {};
}

}  // namespace host

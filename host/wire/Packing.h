#pragma once

#include <chrono>
#include <concepts>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "host/session/AppRecord.h"
#include "host/session/Health.h"
#include "host/session/ItemRecord.h"
#include "host/session/ItemTarget.h"
#include "host/session/Mutations.h"
#include "host/session/Page.h"
#include "host/session/Thumbnail.h"
#include "platform/foundation/QSData.h"
#include "platform/foundation/QSDate.h"
#include "platform/foundation/QSError.h"

namespace host {

/// No value: the answer of a call that only succeeds or fails.
struct Nothing {};

/// The fields of a record in the order in which they travel; one list for both directions.
template <typename T>
struct Fields;

template <>
struct Fields<Nothing> {
    static void list(auto& /*all*/, auto& /*nothing*/) {}
};

template <>
struct Fields<platform::QSError> {
    static void list(auto& all, auto& error) { all(error.domain, error.code, error.userInfo); }
};

template <>
struct Fields<ItemRecord> {
    static void list(auto& all, auto& item) {
        all(item.itemIdentifier, item.parentItemIdentifier, item.filename, item.typeIdentifier,
            item.documentSize, item.creationDate, item.contentModificationDate, item.childItemCount,
            item.capabilities, item.versionIdentifier, item.isTrashed, item.lastUsedDate, item.tags,
            item.favoriteRank, item.fileID, item.docID, item.path, item.beaconDomainIdentifier,
            item.appContainerBundleIdentifier, item.isContainer);
    }
};

template <>
struct Fields<ItemTarget::Entry> {
    static void list(auto& all, auto& entry) { all(entry.parentItemIdentifier, entry.filename); }
};

template <>
struct Fields<ItemTarget> {
    static void list(auto& all, auto& target) { all(target.itemIdentifier, target.entry); }
};

template <>
struct Fields<Page> {
    static void list(auto& all, auto& page) { all(page.items, page.next); }
};

template <>
struct Fields<ChangePage> {
    static void list(auto& all, auto& page) {
        all(page.updates, page.deletions, page.anchor, page.moreComing);
    }
};

template <>
struct Fields<Thumbnail> {
    static void list(auto& all, auto& thumbnail) {
        all(thumbnail.itemIdentifier, thumbnail.picture, thumbnail.type);
    }
};

template <>
struct Fields<AppRecord> {
    static void list(auto& all, auto& app) {
        all(app.bundleIdentifier, app.name, app.isShown, app.root, app.childItemCount, app.reason);
    }
};

template <>
struct Fields<AgeLimit> {
    static void list(auto& all, auto& limit) { all(limit.wall, limit.safe, limit.clocksDiffer); }
};

template <>
struct Fields<ServiceHealth> {
    static void list(auto& all, auto& service) {
        all(service.socket, service.clients, service.extensionProcess, service.restarts,
            service.lastEnd);
    }
};

template <>
struct Fields<Health> {
    static void list(auto& all, auto& health) {
        all(health.storageTrouble, health.roots, health.storePath, health.storeTrouble,
            health.writeTrouble, health.objects, health.indexBytes, health.identityIsWeak,
            health.passedOver, health.isFollowing, health.watches, health.watchLimit,
            health.degradedFolderCount, health.degradedFolders, health.lastGap,
            health.oldestEventID, health.currentEventID, health.eventCount, health.service);
    }
};

template <>
struct Fields<Mutations::Progress> {
    static void list(auto& all, auto& progress) { all(progress.items, progress.bytes); }
};

/// The last value of an enumeration that travels.
constexpr Order largestOf(Order /*of*/) {
    return Order::ByDate;
}
constexpr Override largestOf(Override /*of*/) {
    return Override::Deny;
}

/// Values to bytes: integers little-endian at their width, texts and lists behind a 32-bit length,
/// what is optional behind a byte that is 1 where it is there. One thread.
class Packer {
  public:
    template <typename... T>
    void operator()(const T&... values) {
        (put(values), ...);
    }
    [[nodiscard]] platform::QSData pop() { return std::move(bytes_); }

  private:
    template <std::integral T>
    void put(T value) {
        const auto bits = static_cast<std::uint64_t>(value);
        for (std::size_t i = 0; i < sizeof(T); ++i) {
            bytes_.push_back(static_cast<std::uint8_t>(bits >> (8 * i)));
        }
    }
    template <typename T>
    requires std::is_enum_v<T>
    void put(T value) { put(std::to_underlying(value)); }
    void putLength(std::size_t length) { put(static_cast<std::uint32_t>(length)); }
    void put(const std::string& text) {
        putLength(text.size());
        bytes_.insert(bytes_.end(), text.begin(), text.end());
    }
    void put(const platform::QSData& data) {
        putLength(data.size());
        bytes_.insert(bytes_.end(), data.begin(), data.end());
    }
    void put(const platform::QSDate& date) { (*this)(date.seconds, date.nanoseconds); }
    void put(std::chrono::seconds duration) { put(std::int64_t{duration.count()}); }
    template <typename T>
    void put(const std::optional<T>& value) {
        put(value.has_value());
        if (value) put(*value);
    }
    template <typename T>
    void put(const platform::Result<T>& result) {
        put(result.has_value());
        result ? put(*result) : put(result.error());
    }
    template <typename T>
    void put(const std::vector<T>& list) {
        putLength(list.size());
        for (const auto& value : list) put(value);
    }
    void put(const std::map<std::string, std::string, std::less<>>& texts) {
        putLength(texts.size());
        for (const auto& [key, value] : texts) (*this)(key, value);
    }
    void put(const PageStart& start) {
        const auto* order = std::get_if<Order>(&start);
        put(order != nullptr);
        order ? put(*order) : put(std::get<PageToken>(start));
    }
    template <typename T>
    requires std::is_class_v<T>
    void put(const T& record) { Fields<T>::list(*this, record); }

    platform::QSData bytes_;
};

/// The way back, from bytes that may be anything: what does not fit ends the reading, and nothing
/// larger than the bytes is ever allocated at once. One thread.
class Unpacker {
  public:
    /// `bytes` must outlive the reading.
    explicit Unpacker(platform::QSDataView bytes) : rest_(bytes) {}

    template <typename... T>
    void operator()(T&... values) {
        (get(values), ...);
    }
    /// The next value; any one where it does not fit.
    template <typename T>
    [[nodiscard]] T next() {
        auto value = [] {
            if constexpr (std::is_same_v<T, ItemTarget>) {
                return ItemTarget(std::string());
            } else {
                return T{};
            }
        }();
        get(value);
        return value;
    }
    /// Whether everything fitted and nothing is left over.
    [[nodiscard]] bool isWhole() const { return !hasFailed_ && rest_.empty(); }

  private:
    [[nodiscard]] platform::QSDataView read(std::size_t count);
    [[nodiscard]] std::size_t readLength();

    void get(bool& value);
    template <std::integral T>
    void get(T& value) {
        std::uint64_t bits = 0;
        int shift = 0;
        for (const auto byte : read(sizeof(T))) {
            bits |= std::uint64_t{byte} << shift;
            shift += 8;
        }
        value = static_cast<T>(bits);
    }
    template <typename T>
    requires std::is_enum_v<T>
    void get(T& value) {
        std::underlying_type_t<T> number = 0;
        get(number);
        if (number > std::to_underlying(largestOf(value))) return fail();
        value = static_cast<T>(number);
    }
    void get(std::string& text);
    void get(platform::QSData& data);
    void get(platform::QSDate& date);
    void get(std::chrono::seconds& duration);
    template <typename T>
    void get(std::optional<T>& value) {
        bool isThere = false;
        get(isThere);
        value = isThere ? std::optional(next<T>()) : std::nullopt;
    }
    template <typename T>
    void get(platform::Result<T>& result) {
        bool isValue = false;
        get(isValue);
        if (isValue) {
            result = next<T>();
        } else {
            result = std::unexpected(next<platform::QSError>());
        }
    }
    template <typename T>
    void get(std::vector<T>& list) {
        for (auto count = readLength(); count > 0 && !hasFailed_; --count) {
            list.push_back(next<T>());
        }
    }
    void get(std::map<std::string, std::string, std::less<>>& texts);
    void get(PageStart& start);
    template <typename T>
    requires std::is_class_v<T>
    void get(T& record) { Fields<T>::list(*this, record); }

    void fail() {
        hasFailed_ = true;
        rest_ = {};
    }

    platform::QSDataView rest_;
    bool hasFailed_ = false;
};

/// The values one behind the other.
template <typename... T>
[[nodiscard]] platform::QSData packed(const T&... values) {
    Packer packer;
    packer(values...);
    return packer.pop();
}

/// One such value; none unless the bytes are exactly that.
template <typename T>
[[nodiscard]] std::optional<T> unpacked(platform::QSDataView bytes) {
    Unpacker unpacker(bytes);
    auto value = unpacker.next<T>();
    if (!unpacker.isWhole()) return std::nullopt;
    return value;
}

}  // namespace host

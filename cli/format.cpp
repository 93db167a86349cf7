#include "cli/format.h"

#include <fmt/format.h>

#include <array>
#include <iterator>
#include <optional>
#include <type_traits>
#include <vector>

#include "cli/text.h"

namespace cli {

namespace {

/// Calls `visit(key, value)` for every field, in the order in which they are printed.
template <typename Visit>
void forEachField(const host::ItemRecord& item, Visit&& visit) {
    visit("itemIdentifier", item.itemIdentifier);
    visit("parentItemIdentifier", item.parentItemIdentifier);
    visit("filename", item.filename);
    visit("typeIdentifier", item.typeIdentifier);
    visit("documentSize", item.documentSize);
    visit("creationDate", item.creationDate);
    visit("contentModificationDate", item.contentModificationDate);
    visit("childItemCount", item.childItemCount);
    visit("capabilities", item.capabilities);
    visit("versionIdentifier", item.versionIdentifier);
    visit("isTrashed", item.isTrashed);
    visit("lastUsedDate", item.lastUsedDate);
    visit("tags", item.tags);
    visit("favoriteRank", item.favoriteRank);
    visit("fileID", item.fileID);
    visit("docID", item.docID);
    visit("path", item.path);
    visit("beaconDomainIdentifier", item.beaconDomainIdentifier);
    visit("appContainerBundleIdentifier", item.appContainerBundleIdentifier);
    visit("isContainer", item.isContainer);
}

template <typename Visit>
void forEachField(const host::Health& health, Visit&& visit) {
    const auto problems = health.problems();
    visit("isHealthy", problems.empty());
    visit("problems", problems);
    visit("roots", health.roots);
    visit("storePath", health.storePath);
    visit("objects", health.objects);
    visit("indexBytes", health.indexBytes);
    visit("identity", std::string(health.identityIsWeak ? "weak" : "strong"));
    visit("passedOver", health.passedOver);
    visit("isFollowing", health.isFollowing);
    visit("watches", health.watches);
    visit("watchLimit", health.watchLimit);
    visit("degradedFolderCount", health.degradedFolderCount);
    visit("degradedFolders", health.degradedFolders);
    visit("lastGap", health.lastGap);
    visit("oldestEventID", health.oldestEventID);
    visit("currentEventID", health.currentEventID);
    visit("eventCount", health.eventCount);
    const auto& service = health.service;
    const auto ofService = [&](const auto& value) { return service.transform(value); };
    visit("socket", ofService([](const auto& own) { return own.socket; }));
    visit("clients", ofService([](const auto& own) { return own.clients; }));
    visit("extensionProcess", ofService([](const auto& own) { return own.extensionProcess; }));
    visit("extensionRestarts", ofService([](const auto& own) { return own.restarts; }));
    visit("lastExtensionEnd", service ? service->lastEnd : std::nullopt);
}

template <typename Number>
requires std::is_integral_v<Number>
void appendValue(std::string& out, Number value) {
    const fmt::format_int text(value);
    out.append(text.data(), text.size());
}
void appendValue(std::string& out, bool value) {
    out += value ? "true" : "false";
}
void appendValue(std::string& out, const std::string& value) {
    appendJsonString(out, value);
}
void appendValue(std::string& out, const platform::QSDate& value) {
    out += '"';
    out += value.rfc3339();
    out += '"';
}
void appendValue(std::string& out, const platform::QSData& value) {
    out += '"';
    out += base64(value);
    out += '"';
}
void appendValue(std::string& out, const std::vector<std::string>& values) {
    out += '[';
    for (const auto& value : values) {
        if (&value != &values.front()) out += ',';
        appendJsonString(out, value);
    }
    out += ']';
}
template <typename Value>
void appendValue(std::string& out, const std::optional<Value>& value) {
    if (value) {
        appendValue(out, *value);
    } else {
        out += "null";
    }
}

std::string capabilitiesText(const host::ItemRecord& item) {
    constexpr std::array words{"reading", "writing", "moving", "renaming", "trashing", "deleting"};
    constexpr std::array folderWords{"listing",  "adding",   "moving",
                                     "renaming", "trashing", "deleting"};
    std::string text;
    for (std::size_t bit = 0; bit < words.size(); ++bit) {
        if ((item.capabilities >> bit & 1) == 0) continue;
        if (!text.empty()) text += ", ";
        text += item.isFolder() ? folderWords[bit] : words[bit];
    }
    return text.empty() ? "none" : text;
}

std::string sizeText(const host::ItemRecord& item) {
    if (item.documentSize) return humanSize(*item.documentSize);
    if (!item.childItemCount) return "-";
    return fmt::format("{} item{}", *item.childItemCount, *item.childItemCount == 1 ? "" : "s");
}

std::string fieldText(const std::string& value) {
    return value;
}
std::string fieldText(bool value) {
    return value ? "yes" : "no";
}
std::string fieldText(const platform::QSDate& value) {
    return value.rfc3339();
}
std::string fieldText(const platform::QSData& value) {
    return base64(value);
}
std::string fieldText(const std::vector<std::string>& values) {
    return fmt::format("{}", fmt::join(values, ", "));
}
template <typename Number>
requires std::is_integral_v<Number> std::string fieldText(Number value) {
    return fmt::format("{}", value);
}
template <typename Value>
std::string fieldText(const std::optional<Value>& value) {
    return value ? fieldText(*value) : "-";
}

/// The values of an object in braces.
template <typename Value>
void appendObject(std::string& out, const Value& value) {
    char separator = '{';
    forEachField(value, [&](std::string_view key, const auto& field) {
        out += separator;
        out += '"';
        out += key;
        out += "\":";
        appendValue(out, field);
        separator = ',';
    });
    out += '}';
}

void appendField(std::string& out, std::string_view key, std::string_view text) {
    fmt::format_to(std::back_inserter(out), "{:28}  {}\n", key, text);
}

/// `text` in the colours and with the ending of the item's kind.
void appendText(std::string& out, std::string_view text, const host::ItemRecord& item,
                const Style& style) {
    const bool isFolder = item.isFolder();
    if (isFolder && style.hasColor) out += "\033[1;34m";
    out += shown(text, style);
    if (isFolder && style.hasColor) out += "\033[0m";
    if (isFolder) out += '/';
}

}  // namespace

void appendJson(std::string& out, const host::ItemRecord& item) {
    appendObject(out, item);
    out += '\n';
}

void appendJson(std::string& out, const host::Health& health) {
    appendObject(out, health);
    out += '\n';
}

void appendJsonUpdate(std::string& out, const host::ItemRecord& item) {
    out += "{\"update\":";
    appendObject(out, item);
    out += "}\n";
}

std::string shown(std::string_view text, const Style& style) {
    return style.isTerminal ? escapedForTerminal(text) : std::string(text);
}

void appendName(std::string& out, const host::ItemRecord& item, const Style& style) {
    appendText(out, item.filename, item, style);
}

void appendRow(std::string& out, const host::ItemRecord& item, const Style& style) {
    const auto date = item.contentModificationDate ? humanDate(*item.contentModificationDate) : "-";
    fmt::format_to(std::back_inserter(out), "{:>11}  {:16}  ", sizeText(item), date);
    appendName(out, item, style);
    out += '\n';
}

void appendFields(std::string& out, const host::ItemRecord& item, const Style& style) {
    forEachField(item, [&](std::string_view key, const auto& value) {
        auto text = shown(fieldText(value), style);
        if (key == "capabilities") text = capabilitiesText(item);
        if (key == "documentSize" && item.documentSize.value_or(0) >= 1024) {
            text = fmt::format("{} ({} bytes)", humanSize(*item.documentSize), *item.documentSize);
        }
        appendField(out, key, text);
    });
}

void appendFields(std::string& out, const host::Health& health, const Style& style) {
    forEachField(health, [&](std::string_view key, const auto& value) {
        auto text = shown(fieldText(value), style);
        if (key == "indexBytes") text = humanSize(health.indexBytes);
        appendField(out, key, text.empty() ? "-" : text);
    });
}

void appendUpdate(std::string& out, const host::ItemRecord& item, const Style& style) {
    fmt::format_to(std::back_inserter(out), "updated  {:12}  ", item.itemIdentifier);
    appendText(out, item.path.value_or(item.filename), item, style);
    out += '\n';
}

void appendDeletion(std::string& out, const std::string& identifier, const Style& style) {
    fmt::format_to(std::back_inserter(out), "deleted  {}\n", shown(identifier, style));
}

}  // namespace cli

#include "cli/ItemOrder.h"

#include <glib.h>

#include <algorithm>
#include <clocale>
#include <memory>
#include <utility>

namespace cli {

namespace {

using Text = std::unique_ptr<char, decltype(&g_free)>;

Text owned(char* text) {
    return {text, &g_free};
}

bool localeHasAnOrder() {
    const std::string_view name = std::setlocale(LC_COLLATE, nullptr);
    return name != "POSIX" && name != "C" && !name.starts_with("C.");
}

/// Lower-case letters without accents.
std::string folded(const char* name) {
    const auto lowered = owned(g_utf8_casefold(name, -1));
    const auto letters = owned(g_utf8_normalize(lowered.get(), -1, G_NORMALIZE_ALL));
    std::string result;
    for (const char* at = letters.get(); *at;) {
        const char* next = g_utf8_find_next_char(at, nullptr);
        if (!g_unichar_ismark(g_utf8_get_char(at))) result.append(at, next);
        at = next;
    }
    return result;
}

/// Items of equal keys stay in their order.
template <typename Key, typename Before>
void sortByKey(std::vector<host::ItemRecord>& items, Key key, Before before) {
    std::vector<std::pair<decltype(key(items[0])), std::size_t>> keyed;
    keyed.reserve(items.size());
    for (const auto& item : items) keyed.emplace_back(key(item), keyed.size());
    std::ranges::sort(keyed, [&](const auto& one, const auto& other) {
        if (before(one.first, other.first)) return true;
        return !before(other.first, one.first) && one.second < other.second;
    });
    std::vector<host::ItemRecord> sorted;
    sorted.reserve(items.size());
    for (const auto& each : keyed) sorted.push_back(std::move(items[each.second]));
    items = std::move(sorted);
}

}  // namespace

std::string nameKey(std::string_view name) {
    const auto valid = owned(g_utf8_make_valid(name.data(), static_cast<gssize>(name.size())));
    const auto text = localeHasAnOrder() ? std::string(valid.get()) : folded(valid.get());
    const auto key = owned(g_utf8_collate_key_for_filename(text.c_str(), -1));
    return std::string(key.get()) + '\0' + std::string(name);
}

void sortByName(std::vector<host::ItemRecord>& items) {
    sortByKey(
        items, [](const auto& item) { return nameKey(item.filename); }, std::less());
}

void sortByDate(std::vector<host::ItemRecord>& items) {
    sortByName(items);
    sortByKey(
        items, [](const auto& item) { return item.contentModificationDate; }, std::greater());
}

}  // namespace cli

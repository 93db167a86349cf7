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
        const char* next = g_utf8_next_char(at);
        if (!g_unichar_ismark(g_utf8_get_char(at))) result.append(at, next);
        at = next;
    }
    return result;
}

template <typename Key, typename Less>
void sortByKey(std::vector<host::ItemRecord>& items, Key key, Less less) {
    std::vector<std::pair<decltype(key(items[0])), host::ItemRecord>> keyed;
    keyed.reserve(items.size());
    for (auto& item : items) {
        auto itemKey = key(item);
        keyed.emplace_back(std::move(itemKey), std::move(item));
    }
    std::ranges::stable_sort(
        keyed, less, [](const auto& each) -> auto& { return each.first; });
    items.clear();
    for (auto& [_, item] : keyed) items.push_back(std::move(item));
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

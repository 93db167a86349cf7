#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "host/session/ItemRecord.h"

namespace cli {

/// A text whose byte order is the order in which people read names: numbers by value ("a2" before
/// "a10"), letters as the user's locale has them. A locale without an order of its own, such as C,
/// gets one without regard to case and accents. Names that read alike are in byte order.
/// REQUIRES: the process has called setlocale.
[[nodiscard]] std::string nameKey(std::string_view name);

void sortByName(std::vector<host::ItemRecord>& items);
/// By modification date, the newest first; items without a date last; items of one date by name.
void sortByDate(std::vector<host::ItemRecord>& items);

}  // namespace cli

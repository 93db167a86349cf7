#pragma once

#include <string>
#include <string_view>

#include "host/session/Health.h"
#include "host/session/ItemRecord.h"

namespace cli {

/// How text for people is written to one output.
struct Style {
    bool isTerminal = false;  ///< names are escaped; elsewhere they stand as the bytes they are
    bool hasColor = false;
};

/// The item as one JSON object and a line end. The order of the keys is part of the interface.
void appendJson(std::string& out, const host::ItemRecord& item);
void appendJson(std::string& out, const host::Health& health);
/// The same of the item, as the value of "update".
void appendJsonUpdate(std::string& out, const host::ItemRecord& item);

/// One row of `ls`: size or number of children, modification date, name.
void appendRow(std::string& out, const host::ItemRecord& item, const Style& style);

/// The item's name as `ls` and `tree` write it, a folder with "/" behind it.
void appendName(std::string& out, const host::ItemRecord& item, const Style& style);

/// Every field on a line of its own.
void appendFields(std::string& out, const host::ItemRecord& item, const Style& style);
void appendFields(std::string& out, const host::Health& health, const Style& style);

/// The rows of `changes`: "updated" with identifier and path, "deleted" with the identifier.
void appendUpdate(std::string& out, const host::ItemRecord& item, const Style& style);
void appendDeletion(std::string& out, const std::string& identifier, const Style& style);

/// `text` as it is, or escaped for a terminal.
[[nodiscard]] std::string shown(std::string_view text, const Style& style);

}  // namespace cli

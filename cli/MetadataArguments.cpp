#include "cli/MetadataArguments.h"

#include <CLI/CLI.hpp>
#include <charconv>

#include "platform/foundation/QSUnicode.h"

namespace cli {

namespace {

void addClear(CLI::App& command, MetadataArguments& into) {
    command.add_flag("--clear", into.clear, "Take away what there is");
}

std::string checkLabel(const std::string& label) {
    if (label.empty()) return "a tag is not empty";
    return platform::isUTF8(label) ? "" : "a tag is text in UTF-8";
}

/// The parser's own conversion takes -1 for the largest number.
bool readRank(const std::string& text, MetadataArguments& into) {
    std::uint64_t number = 0;
    const auto* end = text.data() + text.size();
    const auto read = std::from_chars(text.data(), end, number);
    if (read.ec != std::errc() || read.ptr != end) return false;
    into.rank = number;
    return true;
}

bool readDate(const std::string& text, MetadataArguments& into) {
    into.date = text == "now" ? platform::QSDate::now() : platform::QSDate::dateFromRFC3339(text);
    return into.date.has_value();
}

}  // namespace

void addTagOptions(CLI::App& command, MetadataArguments& into) {
    command.add_option("LABEL", into.labels, "Tags, in this order")->check(checkLabel);
    addClear(command, into);
}

void addRankOptions(CLI::App& command, MetadataArguments& into) {
    command
        .add_option_function<std::string>(
            "RANK",
            [&into](const std::string& text) {
                if (!readRank(text, into)) throw CLI::ValidationError("RANK", "no rank: " + text);
            },
            "A whole number")
        ->option_text(" ");
    addClear(command, into);
}

void addDateOptions(CLI::App& command, MetadataArguments& into) {
    command
        .add_option_function<std::string>(
            "DATE",
            [&into](const std::string& text) {
                if (!readDate(text, into)) throw CLI::ValidationError("DATE", "no date: " + text);
            },
            "now, or 2026-01-31T09:15:00Z and the like (RFC 3339)")
        ->option_text(" ");
    addClear(command, into);
}

void addThumbnailOptions(CLI::App& command, MetadataArguments& into) {
    command.add_option("ITEM", into.items, "Items")->required()->option_text(" ");
    command.add_option("-o,--output", into.folder, "The folder to write to")->required();
}

}  // namespace cli

#include "cli/MutationArguments.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdint>
#include <utility>

namespace cli {

namespace {

constexpr const char* itemHelp = "An identifier, a word or a path";
constexpr const char* folderHelp = "The folder: an identifier, a word or a path";

void addItems(CLI::App& command, const char* label, MutationArguments& into) {
    command.add_option(label, into.items, itemHelp)->required()->option_text("...");
}

void addItem(CLI::App& command, MutationArguments& into) {
    command
        .add_option_function<std::string>(
            "ITEM", [&into](const std::string& item) { into.items = {item}; }, itemHelp)
        ->required()
        ->option_text(" ");
}

}  // namespace

std::optional<std::chrono::seconds> parseAge(std::string_view text) {
    constexpr std::string_view units = "smhdw";
    constexpr std::array<std::int64_t, 5> seconds{1, 60, 3600, 86'400, 604'800};
    constexpr std::uint32_t most = 1'000'000;
    std::uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const auto rest = text.substr(static_cast<std::size_t>(end - text.data()));
    const auto unit = rest.size() == 1 ? units.find(rest[0]) : std::string_view::npos;
    if (error != std::errc() || unit == std::string_view::npos || number > most) return {};
    return std::chrono::seconds(number * seconds[unit]);
}

std::string checkAge(const std::string& text) {
    if (parseAge(text)) return {};
    return "an age is a number and s, m, h, d or w, such as 30d";
}

void addMutationOptions(CLI::App& command, MutationArguments& into) {
    const auto& name = command.get_name();
    if (name == "mkdir") {
        command.add_option("NAME", into.name, "The folder's name")->required()->option_text(" ");
        command.add_option("--in", into.to, folderHelp)->required();
    } else if (name == "import") {
        addItems(command, "PATH", into);
        command.add_option("--to", into.to, folderHelp)->required();
    } else if (name == "rename") {
        addItem(command, into);
        command.add_option("NAME", into.name, "The new name")->required()->option_text(" ");
    } else if (name == "mv") {
        addItem(command, into);
        command.add_option("--to", into.to, folderHelp)->required();
        command.add_option("--name", into.name, "A new name as well");
    } else if (name == "untrash") {
        addItem(command, into);
        command.add_option("--to", into.to, folderHelp);
    } else if (name == "empty-trash") {
        command
            .add_option_function<std::string>(
                "--older-than", [&into](const std::string& age) { into.age = *parseAge(age); },
                "What was trashed longer ago, such as 30d")
            ->required()
            ->check(CLI::Validator(checkAge, "AGE", "AGE"));
        command.add_flag("--dry-run", into.isDryRun, "Print what would be deleted");
        command.add_flag("--force", into.isForced, "Go by dates of a clock that was wrong");
    } else {
        addItems(command, "ITEM", into);
    }
}

}  // namespace cli

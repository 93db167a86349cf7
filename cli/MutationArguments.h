#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace CLI {
class App;
}

namespace cli {

/// What the commands that change documents are given, as typed.
struct MutationArguments {
    std::vector<std::string> items;  ///< items, or paths to import
    std::optional<std::string> to;   ///< the folder that things go to
    std::optional<std::string> name;
    std::chrono::seconds age{};
    bool isDryRun = false;
    bool isForced = false;
};

/// Gives the sub-command of that name its options, stored in `into`, which must outlive the parser.
/// Text that is wrong is refused by the parser.
void addMutationOptions(CLI::App& command, MutationArguments& into);

/// A number and "s", "m", "h", "d" or "w"; none for anything else.
[[nodiscard]] std::optional<std::chrono::seconds> parseAge(std::string_view text);

/// The check for options that take an age: what is wrong with the text, or nothing.
[[nodiscard]] std::string checkAge(const std::string& text);

}  // namespace cli

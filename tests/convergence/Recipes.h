#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace tests {

/// How one program saves a document, as it was traced.
struct Recipe {
    std::string_view program;
    bool replaces;  ///< another object has the name then; else it is the same one
    /// A script, see Actor; "@" is the folder with its "/", "%" the name of the document.
    std::string_view script;

    [[nodiscard]] std::string on(const std::string& document) const;
};

[[nodiscard]] const std::vector<Recipe>& recipes();

/// Whether a saving program gives such names to the version before.
[[nodiscard]] bool isBackupName(std::string_view name);

using Random = std::mt19937_64;
/// A number below `limit`, the same for a seed on every machine.
[[nodiscard]] inline std::size_t below(Random& random, std::size_t limit) {
    return static_cast<std::size_t>(random() % limit);
}

struct Operation {
    std::string script;
    const Recipe* recipe = nullptr;  ///< where it is a save of `document`
    std::string document = {};
};
/// One operation on the small name space: "s" is the tree, "out" a folder beside it.
[[nodiscard]] Operation randomOperation(Random& random);
/// The same of one that gives a file more names, or removes some.
[[nodiscard]] Operation linkingOperation(Random& random);

}  // namespace tests

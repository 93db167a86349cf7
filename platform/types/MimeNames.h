#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <set>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace platform {

/// The shared MIME database's answers by name, remembered by as little of a name as its patterns
/// distinguish: mostly the extension. The patterns are those there were at construction. Any
/// thread.
class MimeNames {
  public:
    MimeNames();

    /// The type of a file of that name, never empty; valid as long as this object. What is
    /// remembered differs in no case from what the database itself says.
    [[nodiscard]] const std::string& typeOfName(std::string_view name) const;

  private:
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const {
            return std::hash<std::string_view>()(text);
        }
    };
    using Cache = std::unordered_map<std::string, const std::string*, Hash, std::equal_to<>>;

    void readPatterns(const std::string& path);
    void addPattern(std::string_view pattern);
    void addEndPattern(std::string_view pattern);
    void needWholeNames(std::string_view pattern);
    [[nodiscard]] bool namesWholeFile(std::string_view name, std::size_t dot) const;
    [[nodiscard]] std::string_view decidingPart(std::string_view name) const;

    // Constant after construction; all in lower case.
    using Pieces = std::set<std::string, std::less<>>;
    std::array<bool, 256> isSpecialInitial_{};  // of any of the next two
    std::vector<std::string> stems_;            // first pieces that patterns name: "makefile.*"
    std::vector<std::string> beginnings_;       // beginnings that patterns name: "readme*"
    Pieces innerPieces_;                        // "tar" of "*.tar.gz"
    Pieces unsureEnds_;                         // "vdr" of "[0-9][0-9][0-9].vdr": asked each time
    bool isAnyEndUnsure_ = false;               // some pattern fits none of the above

    mutable std::shared_mutex mutex_;
    // Guarded by mutex_.
    mutable std::unordered_set<std::string> types_;  // as many as the database has; never shrinks
    mutable Cache byEnd_;
    mutable Cache byName_;
};

}  // namespace platform

#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/QSError.h"

namespace platform {

inline constexpr std::string_view folderTypeIdentifier = "public.folder";
inline constexpr std::string_view packageTypeIdentifier = "com.quenby.package";

/// Type identifiers and what they conform to: the declared ones (built in, then `*.json` of the
/// given folders) and, for every other file, the shared MIME database by name. Immutable after it
/// was made; any thread.
class TypeRegistry {
  public:
    struct Declaration {
        std::string identifier;
        std::vector<std::string> extensions;  ///< without the dot, compared without case
        std::vector<std::string> conformsTo;
        bool isFolder = false;  ///< names a kind of directory (a package)
    };

    /// The built-in types alone.
    TypeRegistry();

    /// Adds the declarations in the `*.json` files of `folders` (native paths; "types.d" of the
    /// data folders), later ones winning. A file that cannot be read or parsed is left out and
    /// named in the result; the rest counts.
    [[nodiscard]] std::vector<QSError> load(const std::vector<std::string>& folders);

    /// The type of a directory with that name: a declared package type by extension, else
    /// folderTypeIdentifier.
    [[nodiscard]] std::string typeOfDirectory(std::string_view name) const;
    /// The type of anything else by its name; never empty ("application/octet-stream" at the
    /// least). Cached by extension, so that a listing asks the MIME database once for each.
    [[nodiscard]] std::string typeOfFile(std::string_view name) const;

    /// Equal to, or declared (over any number of steps) to conform to `ancestor`. MIME types follow
    /// the database's sub-classes.
    [[nodiscard]] bool conforms(std::string_view identifier, std::string_view ancestor) const;

  private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace platform

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
/// given folders) and, for every other file, the shared MIME database by name. Once loaded, any
/// thread; a copy shares its original's declarations. Types come back as references that hold as
/// long as the registry or a copy of it does.
///
/// A declaration file is {"types": [{"identifier": …, "extensions": […], "conformsTo": […],
/// "folder": true}]}; all but the identifier may be left out.
class TypeRegistry {
  public:
    struct Declaration {
        std::string identifier;
        /// Without the leading dot, compared without case (of ASCII letters); may be compound.
        std::vector<std::string> extensions;
        std::vector<std::string> conformsTo;
        bool isFolder = false;  ///< names a kind of directory (a package), and never a file
    };

    /// The built-in types alone: the folder; the package, which is no folder; "com.quenby.quire"
    /// and "com.quenby.lutebox", packages of the extensions "quire" and "lutebox".
    TypeRegistry();

    /// Adds the declarations in the `*.json` files of `folders` (native paths; "types.d" of the
    /// data folders), in the order of their names. A later declaration replaces one of its
    /// identifier and goes before others in claiming an extension. A file that cannot be read or
    /// parsed is left out whole and named in the result; a folder that is not there is none.
    /// Blocks. REQUIRES: no other thread uses the registry yet.
    [[nodiscard]] std::vector<QSError> load(const std::vector<std::string>& folders);

    /// The type of a directory with that name: a declared package type by its longest known
    /// extension, else folderTypeIdentifier.
    [[nodiscard]] const std::string& typeOfDirectory(std::string_view name) const;
    /// The type of anything else by its name; never empty ("application/octet-stream" at the
    /// least). Remembered by what of the name decides, so that a listing asks the MIME database
    /// once for each extension.
    [[nodiscard]] const std::string& typeOfFile(std::string_view name) const;

    /// Equal to, or declared (over any number of steps) to conform to `ancestor`. MIME types follow
    /// the database's sub-classes.
    [[nodiscard]] bool conforms(std::string_view identifier, std::string_view ancestor) const;

  private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace platform

#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

namespace platform {

/// Finds icons by name as the icon themes of a desktop lay them out: "index.theme" of a theme says
/// which of its folders hold which sizes, and which themes to ask next. Reads them anew each time.
/// Any thread; blocks for the disk.
class IconThemes {
  public:
    struct Configuration {
        std::vector<std::string> folders = {};  ///< of themes; native, most important first
        std::vector<std::string> loose = {};    ///< of icons that belong to no theme
        std::string theme = {};                 ///< asked before "hicolor"; may be empty
    };

    explicit IconThemes(Configuration configuration);

    /// The PNG or SVG file of that name that fits `points` at `scale` best: of the first theme that
    /// has one of any size. `name` is a name ("org.example.App", an ending is ignored), looked for
    /// in `first`, a folder of themes, before the others where not empty; or an absolute path. None
    /// where there is no such regular file.
    [[nodiscard]] std::optional<std::string> find(const std::string& name, int points, int scale,
                                                  const std::string& first = {}) const;

    /// The folders and the theme of this user: of XDG, with those of Flatpak named outright.
    [[nodiscard]] static Configuration ofUser(const std::string& theme);

  private:
    struct Search;

    // Constant after construction.
    Configuration configuration_;
};

}  // namespace platform

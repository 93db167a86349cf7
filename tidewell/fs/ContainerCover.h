#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/QSURL.h"
#include "tidewell/fs/DirectoryWalk.h"
#include "tidewell/items/LocalItem.h"

namespace tidewell {

/// Why a container shows an object at a place, or does not.
enum class Cover : std::uint8_t {
    Shown,
    Outside,    ///< not in a folder that the container covers
    Root,       ///< a root of the container itself
    Hidden,     ///< its name, or that of a folder it is in, begins with "."
    InPackage,  ///< in a folder that people see as one file
    Trashed,    ///< shown by listing the trash, and deleted as far as changes go
    NotAFolder  ///< in a container of folders only
};

/// What a container shows: asked by its listing and by its changes. A value; any thread.
class ContainerCover {
  public:
    /// REQUIRES: `urls`, the container's roots, is not empty; a container that is a single folder
    /// shows the first.
    ContainerCover(std::string container, std::vector<QSURL> urls);

    [[nodiscard]] const std::string& container() const { return container_; }
    [[nodiscard]] const std::vector<QSURL>& urls() const { return urls_; }

    struct Place {
        Cover cover = Cover::Outside;
        /// The outermost package that the place is in, where that stands at a place that is shown.
        std::optional<QSURL> package = {};
    };
    /// What follows from the path of a place alone, whether or not anything stands there.
    [[nodiscard]] Place placeOf(const QSURL& url) const;
    /// The same, with the object that stands there.
    [[nodiscard]] Cover coverOf(const LocalItem& item) const;

    [[nodiscard]] bool isRecursive() const { return isWorkingSet_ || showsFoldersOnly_; }
    [[nodiscard]] bool showsFoldersOnly() const { return showsFoldersOnly_; }

    /// Whether the container is one folder that was looked up before, so that its URL may lead to
    /// another one, or nowhere, now.
    [[nodiscard]] bool mayMove() const { return meant_.has_value(); }
    /// Whether that folder is where it was found; true where it cannot move. An error where that
    /// cannot be found out. Blocks for the look.
    [[nodiscard]] Result<bool> isInPlace() const;

    /// The walk that lists the container.
    [[nodiscard]] std::vector<DirectoryWalk::Root> walkRoots() const;
    [[nodiscard]] DirectoryWalk makeWalk(std::vector<DirectoryWalk::Root> roots) const;
    /// The options for walking one folder that is shown.
    [[nodiscard]] WalkOptions walkOptions() const;

  private:
    // Constant after construction.
    std::string container_;
    std::vector<QSURL> urls_;
    bool isWorkingSet_;
    bool showsFoldersOnly_;
    std::optional<ObjectIdentity> meant_;  ///< of the single folder, where its URL keeps it
};

/// Whether a folder of that name is a package.
[[nodiscard]] bool isPackageName(std::string_view name);

}  // namespace tidewell

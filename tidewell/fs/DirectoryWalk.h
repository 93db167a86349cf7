#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/files/Folder.h"

namespace tidewell {

using namespace platform;

/// A bit set.
using WalkOptions = unsigned;
inline constexpr WalkOptions walkSkipsHiddenEntries = 1;
inline constexpr WalkOptions walkSkipsPackageDescendants = 2;
inline constexpr WalkOptions walkSkipsFolderDescendants = 4;
inline constexpr WalkOptions walkDescendsIntoNothing =
    walkSkipsPackageDescendants | walkSkipsFolderDescendants;

inline constexpr std::uint64_t walkWithoutPageLimit = std::numeric_limits<std::uint64_t>::max();

/// The entries below some roots, depth first, in the order that the file system returns them, in
/// pages. A walk that is kept goes on where its last page ended, at no cost; a new one reaches the
/// same place by counting, with the same entries to come. One thread at a time; holds one open
/// folder for each level it is in.
class DirectoryWalk {
  public:
    struct Root {
        QSURL url;
        WalkOptions options = 0;
        /// That of the folder meant; another one at the URL is none (ENOENT).
        std::optional<ObjectIdentity> identity = {};
    };
    /// The URL of one entry, its attributes kept. An error ends the walk and is passed on.
    using EntryCallback = std::function<Result<void>(const QSURL& url)>;
    /// The options for a child folder, from its name and the options of the folder it is in.
    using ChildFilter = WalkOptions (*)(std::string_view name, WalkOptions inherited);

    enum class Emits : std::uint8_t { everything, directories };

    /// With `Emits::directories` other entries are counted and passed over.
    DirectoryWalk(std::vector<Root> roots, ChildFilter childFilter, Emits emits);

    /// Passes over entries up to `skipOffset`, then hands at most `pageSize` to `callback`; returns
    /// the count reached, to be the next page's offset. An entry that is missing when it is looked
    /// at, lies on another volume or cannot be read is counted and passed over. Fails where the
    /// first root cannot be opened, and where the process or the system is short of something;
    /// another root that is missing is empty, and a folder below that cannot be read is logged and
    /// passed over. Blocks for the file system.
    Result<std::uint64_t> walk(std::uint64_t skipOffset, std::uint64_t pageSize,
                               const EntryCallback& callback);

    /// The count reached so far.
    [[nodiscard]] std::uint64_t count() const { return count_; }

  private:
    struct Level {
        std::shared_ptr<Folder> folder;
        WalkOptions options;
    };

    Result<void> openNextRoot();
    void enter(std::shared_ptr<Folder> folder, WalkOptions options);
    void leave();
    Result<void> emit(const Folder& folder, const DirectoryEntry& entry,
                      const EntryCallback& callback) const;
    Result<void> descend(const Level& level, const DirectoryEntry& entry);
    [[nodiscard]] static Result<void> passOver(const QSError& error);

    // Constant after construction.
    std::vector<Root> roots_;
    ChildFilter childFilter_;
    Emits emits_;

    std::size_t nextRoot_ = 0;
    std::vector<Level> levels_;
    std::uint64_t count_ = 0;
};

}  // namespace tidewell

#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/files/Folder.h"
#include "platform/volume/ObjectIndex.h"

namespace platform {

/// One name in a folder as it is on the disk, where that is other than the index has it.
struct Sighting {
    std::string name;
    std::optional<ObjectState> state;  ///< none: nothing has the name
    std::uint64_t generation = 0;      ///< 0: not asked for, since nothing depends on it
    bool wasWritten = false;           ///< the kernel spoke of a change of the object itself
};

/// What one look at a folder found.
struct FolderReading {
    ObjectIndex::NodeNumber folder = ObjectIndex::none;
    QSURL url;
    ObjectState own;
    std::uint64_t generation = 0;
    std::vector<Sighting> sightings;
    /// Of a whole reading: every name that is there, sorted. Other names of the index are missing.
    std::optional<std::vector<std::string>> names;
    /// Why some of the names could not be looked at, of the last of them. What the index has of
    /// them stays as it is.
    std::optional<QSError> trouble;
    /// Of single names: others may have changed, too, before the folder was in the state `own`.
    bool isPart = false;
};

/// Looks at a folder through a descriptor that was verified to be of the folder meant, and reports
/// what is other than in the index. Changes nothing. One thread at a time.
class FolderReader {
  public:
    /// Asked for names whose generation matters though the index cannot know, under the lock.
    using WantsGeneration =
        std::function<bool(ObjectIndex::NodeNumber folder, std::string_view name)>;

    FolderReader(const ObjectIndex& index, std::shared_mutex& mutex, WantsGeneration wants)
        : index_(index), mutex_(mutex), wantsGeneration_(std::move(wants)) {}

    /// ESTALE where `folder` is not the folder of that node.
    [[nodiscard]] Result<FolderReading> begin(ObjectIndex::NodeNumber number,
                                              const Folder& folder) const;

    /// Looks at these names; the flag is Sighting::wasWritten.
    void readNames(const Folder& folder, std::vector<std::pair<std::string, bool>> names,
                   FolderReading& reading) const;

    /// Looks at every entry. `pause` is called now and then; false ends the reading (ECANCELED).
    [[nodiscard]] Result<void> readAll(Folder& folder, const std::function<bool()>& pause,
                                       FolderReading& reading) const;

  private:
    struct Expected {
        std::uint64_t inode = 0;  ///< 0: the name is not in the index
        std::uint64_t stamp = 0;
        std::uint32_t documentID = 0;
        bool isRacy = false;
        bool wantsGeneration = false;
    };
    [[nodiscard]] std::vector<Expected> expectedOf(
        ObjectIndex::NodeNumber folder,
        const std::vector<std::pair<std::string, bool>>& names) const;
    /// None if the name is as expected.
    [[nodiscard]] Result<std::optional<Sighting>> look(const Folder& folder, std::string name,
                                                       bool wasWritten,
                                                       const Expected& expected) const;
    [[nodiscard]] bool hasGeneration(std::uint64_t inode) const;

    const ObjectIndex& index_;
    std::shared_mutex& mutex_;
    const WantsGeneration wantsGeneration_;
};

}  // namespace platform

#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/registry/DesktopEntry.h"

namespace platform {

/// Reads folders of desktop entries, a file anew only where its state on disk has changed. Never
/// waits on special files, follows links but enters no folder twice, and stops at bounds. One
/// thread at a time.
class EntryReader {
  public:
    explicit EntryReader(std::vector<std::string> languages) : languages_(std::move(languages)) {}

    struct File {
        std::string name;  ///< relative, "/" as "-", without its suffix: the desktop-file ID
        std::string path;  ///< native
        std::shared_ptr<const DesktopEntry> entry;
    };

    /// Around one reading of all folders: what is not met between the two is forgotten.
    void begin();
    void end();

    /// The files of that suffix in the folder and, where `isDeep`, those in it, sorted by name. One
    /// that cannot be read or parsed is a trouble and no file. Calls `onFolder` before a folder is
    /// listed, also one that is not there.
    [[nodiscard]] std::vector<File> read(const std::string& folder, std::string_view suffix,
                                         bool isDeep,
                                         const std::function<void(const std::string&)>& onFolder);

    /// Of the last reading.
    [[nodiscard]] const std::set<std::string>& troubles() const { return troubles_; }

  private:
    struct Known {
        std::uint64_t stamp[5] = {};  ///< of the file's state; all zero = read it again
        std::shared_ptr<const DesktopEntry> entry;
        std::string trouble;
        std::uint64_t reading = 0;
    };
    struct Walk;

    void readFolder(Walk& walk, const std::string& path, const std::string& prefix, int depth);
    [[nodiscard]] std::shared_ptr<const DesktopEntry> entryAt(int folder, const char* name,
                                                              const std::string& path,
                                                              const struct stat& status);
    void parse(int folder, const char* name, Known& known) const;
    void addTrouble(const std::string& path, std::string_view why);

    const std::vector<std::string> languages_;
    std::unordered_map<std::string, Known> known_;  // by path
    std::set<std::string> troubles_;
    std::uint64_t reading_ = 0;
    std::size_t files_ = 0;  ///< met in this reading
};

}  // namespace platform

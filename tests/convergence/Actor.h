#pragma once

#include <expected>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace tests {

/// The bytes of an object's file handle, which no other object ever has: unlike its inode number,
/// which the next object may get. Empty where nothing is there.
using ObjectKey = std::string;
[[nodiscard]] ObjectKey objectKey(const std::string& path);

/// A name in a folder, whatever the folder is called.
[[nodiscard]] inline std::string placeOf(const ObjectKey& folder, std::string_view name) {
    return folder + "/" + std::string(name);
}

/// Whether a directory of that name is a package.
[[nodiscard]] inline bool isPackageName(std::string_view name) {
    return name.ends_with(".lutebox");
}

/// One call of an actor (0 or 1), or something else of which the order counts.
struct Deed {
    int actor = 2;
    std::size_t operation = 0;  ///< that the call is a part of, counted over the whole run
    std::string call;
    int error = 0;  ///< errno; 0 where it succeeded
    bool isDuringLook = false;

    /// An object that came to a place, or may have where another actor meddled.
    struct Sighting {
        std::string place;
        ObjectKey object;
    };
    std::vector<Sighting> sightings = {};
    std::vector<ObjectKey> hidden = {};  ///< objects that a move took out of sight
    std::vector<ObjectKey> left = {};    ///< those of them that left the tree
};

/// What happened, in order. Any thread.
class DeedLog {
  public:
    void add(Deed deed);
    /// Whether a client looks at the moment; deeds that are added then say so.
    void setLooking(bool isLooking);
    /// Everything since the last call.
    [[nodiscard]] std::vector<Deed> pop();
    /// Whether something got that name since.
    [[nodiscard]] bool hasJustCome(const std::string& place) const;
    /// The last calls, for people, whether they were taken or not.
    [[nodiscard]] std::string tail(std::size_t count) const;

  private:
    mutable std::mutex mutex_;
    bool isLooking_ = false;          // guarded
    std::vector<Deed> deeds_;         // guarded
    std::vector<std::string> lines_;  // guarded
};

/// A program that works on files, by system calls alone. Its scripts are calls separated by "|",
/// each a verb and paths below the base folder: "new s/a|put|close". The calls that open keep the
/// descriptor for those that come after. A call that fails ends its script, unless it begins with
/// "?". "own" before a verb has the product do it. One thread at a time.
class Actor {
  public:
    /// What is below "s" is the tree; "attr" sets the attribute.
    struct Place {
        std::string base, attribute, attributeValue;
        /// Does what the product can do, with absolute paths. Returns where the object is then,
        /// empty if nowhere, or an errno.
        using Perform = std::function<std::expected<std::string, int>(
            const std::string& verb, const std::string& at, const std::string& to)>;
        Perform perform = {};
    };
    Actor(int number, Place place, DeedLog& log)
        : number_(number), place_(std::move(place)), log_(log) {}
    ~Actor() { (void)closeOpenFile(); }
    Actor(const Actor&) = delete;
    Actor& operator=(const Actor&) = delete;

    void begin(std::size_t operation, const std::string& script);
    /// Makes one call; false where none is left.
    bool step();

  private:
    [[nodiscard]] int call(std::string_view verb, const std::string& at, const std::string& to);
    [[nodiscard]] bool isWriteUnheard(std::string_view verb, const std::string& at) const;
    [[nodiscard]] int callOnOpenFile(std::string_view verb, const std::string& at);
    [[nodiscard]] int openAs(const std::string& path, int flags);
    int closeOpenFile();
    void sight(Deed& deed, const std::string& path, const ObjectKey& folder,
               const ObjectKey& moved) const;

    const int number_;
    const Place place_;
    DeedLog& log_;
    std::vector<std::string> calls_;
    std::size_t next_ = 0;
    std::size_t operation_ = 0;
    int open_ = -1;
    unsigned contents_ = 0;
};

}  // namespace tests

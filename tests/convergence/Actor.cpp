#include "tests/convergence/Actor.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <utility>

namespace tests {

namespace fs = std::filesystem;

namespace {

int errorOf(long result) {
    return result < 0 ? errno : 0;
}

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, separator);) parts.push_back(part);
    return parts;
}

std::string folderOf(const std::string& path) {
    return path.substr(0, path.rfind('/'));
}

bool givesNames(const std::string& call) {
    constexpr std::array verbs{"mv ", "swap ", "ln ", "trash "};
    return std::ranges::any_of(verbs, [&](const auto* verb) { return call.contains(verb); });
}

int storeThroughMapping(const char* path) {
    const int file = open(path, O_RDWR | O_NOFOLLOW | O_NONBLOCK);
    if (file < 0) return errno;
    void* memory = mmap(nullptr, 1, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    const bool isEmpty = lseek(file, 0, SEEK_END) <= 0;
    close(file);
    if (memory == MAP_FAILED) return errno;
    if (!isEmpty) ++*static_cast<char*>(memory);
    return errorOf(munmap(memory, 1));
}

}  // namespace

ObjectKey objectKey(const std::string& path) {
    alignas(file_handle) char space[sizeof(file_handle) + MAX_HANDLE_SZ]{};
    auto* handle = reinterpret_cast<file_handle*>(space);
    handle->handle_bytes = MAX_HANDLE_SZ;
    int mount = 0;
    if (name_to_handle_at(AT_FDCWD, path.c_str(), handle, &mount, 0) != 0) return {};
    return {space + sizeof(file_handle), handle->handle_bytes};
}

void DeedLog::add(Deed deed) {
    const std::scoped_lock lock(mutex_);
    if (deed.call != "look") {
        lines_.push_back(std::to_string(deed.operation) + " " + std::to_string(deed.actor) + ": " +
                         deed.call + (deed.error ? "  # " : "") +
                         (deed.error ? std::strerror(deed.error) : ""));
    }
    deed.isDuringLook = isLooking_;
    deeds_.push_back(std::move(deed));
}

void DeedLog::setLooking(bool isLooking) {
    const std::scoped_lock lock(mutex_);
    isLooking_ = isLooking;
}

bool DeedLog::hasJustCome(const std::string& place) const {
    const std::scoped_lock lock(mutex_);
    return std::ranges::any_of(deeds_, [&](const Deed& deed) {
        return givesNames(deed.call) && std::ranges::any_of(deed.sightings, [&](const auto& seen) {
                   return seen.place == place;
               });
    });
}

std::vector<Deed> DeedLog::pop() {
    const std::scoped_lock lock(mutex_);
    return std::exchange(deeds_, {});
}

std::string DeedLog::tail(std::size_t count) const {
    const std::scoped_lock lock(mutex_);
    std::string text;
    for (auto i = lines_.size() - std::min(count, lines_.size()); i < lines_.size(); ++i) {
        text += lines_[i] + "\n";
    }
    return text;
}

int Actor::openAs(const std::string& path, int flags) {
    closeOpenFile();
    open_ = open(path.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644);
    return errorOf(open_);
}

int Actor::closeOpenFile() {
    return open_ < 0 ? EBADF : errorOf(close(std::exchange(open_, -1)));
}

/// The kernel reports a write under the name that was used. Where that is not watched, or missing
/// before anybody had seen it, and there are others, nobody hears of it before the next comparison.
bool Actor::isWriteUnheard(std::string_view verb, const std::string& at) const {
    const auto isOneOf = [&](const auto&... verbs) { return ((verb == verbs) || ...); };
    std::error_code error;
    std::string name = at;
    struct stat status {};
    if (isOneOf("put", "cut", "mode")) {
        name = fs::read_symlink("/proc/self/fd/" + std::to_string(open_), error).native();
        if (fstat(open_, &status) != 0) return false;
        if (name.ends_with(" (deleted)")) return status.st_nlink > 0;
    } else if (!isOneOf("new", "trunc", "map", "chmod", "attr") ||
               lstat(at.c_str(), &status) != 0) {
        return false;
    }
    if (S_ISDIR(status.st_mode) || status.st_nlink == 1) return false;
    return !name.starts_with(place_.base + "/s/") ||
           log_.hasJustCome(placeOf(objectKey(folderOf(name)), name.substr(name.rfind('/') + 1)));
}

int Actor::callOnOpenFile(std::string_view verb, const std::string& at) {
    if (verb == "put") {
        ++contents_;
        const auto content = std::string(contents_ % 3, '+') + std::to_string(number_) + "." +
                             std::to_string(contents_);
        return errorOf(write(open_, content.data(), content.size()));
    }
    if (verb == "cut") return errorOf(ftruncate(open_, 0));
    if (verb == "sync") return errorOf(fdatasync(open_));
    if (verb == "mode") return errorOf(fchmod(open_, 0600 | (contents_ & 077)));
    if (verb == "close") return closeOpenFile();
    return errorOf(linkat(AT_FDCWD, ("/proc/self/fd/" + std::to_string(open_)).c_str(), AT_FDCWD,
                          at.c_str(), AT_SYMLINK_FOLLOW));
}

int Actor::call(std::string_view verb, const std::string& at, const std::string& to) {
    const char* path = at.c_str();
    if (isWriteUnheard(verb, at)) return ESTALE;
    if (verb == "new") return openAs(at, O_WRONLY | O_CREAT | O_TRUNC);
    if (verb == "excl") return openAs(at, O_WRONLY | O_CREAT | O_EXCL);
    if (verb == "open") return openAs(at, O_WRONLY);
    if (verb == "trunc") return openAs(at, O_WRONLY | O_TRUNC);
    if (verb == "append") return openAs(at, O_WRONLY | O_APPEND);
    if (verb == "tmpfile") return openAs(at, O_WRONLY | O_TMPFILE);
    if (verb == "map") return storeThroughMapping(path);
    if (verb == "mkdir") return errorOf(mkdir(path, 0755));
    if (verb == "rm") return errorOf(unlink(path));
    if (verb == "rmdir") return errorOf(rmdir(path));
    if (verb == "mv") return errorOf(rename(path, to.c_str()));
    if (verb == "swap") {
        return errorOf(renameat2(AT_FDCWD, path, AT_FDCWD, to.c_str(), RENAME_EXCHANGE));
    }
    if (verb == "ln") return errorOf(link(path, to.c_str()));
    if (verb == "sym") return errorOf(symlink("nowhere/to be found", path));
    if (verb == "chmod") return errorOf(chmod(path, 0700 | (++contents_ & 077)));
    if (verb == "attr") {
        return errorOf(lsetxattr(path, place_.attribute.c_str(), place_.attributeValue.data(),
                                 place_.attributeValue.size(), 0));
    }
    if (verb == "rmtree") {
        std::error_code error;
        fs::remove_all(at, error);
        return error.value();
    }
    return callOnOpenFile(verb, at);
}

/// Notes what is at the path, in the folder that was there before the call and in that which is
/// there now; and what a move or a link put out of sight.
void Actor::sight(Deed& deed, const std::string& path, const ObjectKey& folder,
                  const ObjectKey& moved) const {
    const auto name = path.substr(path.rfind('/') + 1);
    const auto object = objectKey(path);
    // A moved object may have moved on at once.
    if (!moved.empty()) deed.sightings.push_back({placeOf(folder, name), moved});
    if (!object.empty()) {
        deed.sightings.push_back({placeOf(folder, name), object});
        deed.sightings.push_back({placeOf(objectKey(folderOf(path)), name), object});
    }
    if (!givesNames(deed.call)) return;
    const auto root = place_.base + "/s/";
    const bool isOutside = !path.starts_with(root);
    // What comes may have lost a name inside before.
    const bool isFromOutside = deed.call.contains(" out/");
    bool isHidden = isOutside || path.find("/.", root.size() - 1) != std::string::npos;
    for (const auto& part : split(path, '/')) isHidden = isHidden || isPackageName(part);
    const auto note = [&](const ObjectKey& key) {
        if (key.empty()) return;
        if (isHidden) deed.hidden.push_back(key);
        if (isOutside || isFromOutside) deed.left.push_back(key);
    };
    note(object);  // a package too: it has an identifier of another kind
    note(moved);
    std::error_code error;
    for (fs::recursive_directory_iterator it(path, error), end; !error && it != end;
         it.increment(error)) {
        const auto key = objectKey(it->path().string());
        const auto parent = objectKey(it->path().parent_path().string());
        deed.sightings.push_back({placeOf(parent, it->path().filename().string()), key});
        note(key);
    }
}

void Actor::begin(std::size_t operation, const std::string& script) {
    operation_ = operation;
    calls_ = split(script, '|');
    next_ = 0;
}

bool Actor::step() {
    if (next_ == calls_.size()) {
        closeOpenFile();
        return false;
    }
    Deed deed{.actor = number_, .operation = operation_, .call = calls_[next_++]};
    const bool mayFail = deed.call.starts_with('?');
    auto words = split(deed.call.substr(mayFail ? 1 : 0), ' ');
    const bool isOwn = words[0] == "own";
    if (isOwn) words.erase(words.begin());
    words.resize(3);
    ObjectKey folders[3];
    for (std::size_t i = 1; i < words.size(); ++i) {
        if (words[i].empty()) continue;
        words[i] = place_.base + "/" + words[i];
        folders[i] = objectKey(folderOf(words[i]));
    }
    // What goes is noted before: another actor may take it from its new place at once.
    const bool goes =
        words[0] == "mv" || words[0] == "rm" || words[0] == "rmtree" || words[0] == "trash";
    const auto removed = goes ? objectKey(words[1]) : ObjectKey();
    if (isOwn) {
        auto place = place_.perform(words[0], words[1], words[2]);
        deed.error = place ? 0 : place.error();
        if (place) words[2] = std::move(*place);
    } else {
        deed.error = call(words[0], words[1], words[2]);
    }
    if (deed.error == 0) {
        // A hard link of it may be elsewhere.
        if (words[0] == "rm" && !removed.empty()) deed.left.push_back(removed);
        for (std::size_t i = 1; i < words.size(); ++i) {
            if (words[i].empty()) continue;
            if (isOwn) folders[i] = objectKey(folderOf(words[i]));
            sight(deed, words[i], folders[i], removed);
        }
    } else if (!mayFail) {
        next_ = calls_.size();
    }
    log_.add(std::move(deed));
    return true;
}

}  // namespace tests

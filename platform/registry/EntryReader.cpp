#include "platform/registry/EntryReader.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>

namespace platform {

namespace {

constexpr int deepest = 8;
constexpr std::size_t mostFiles = 50'000;
constexpr std::size_t mostTroubles = 100;

struct Close {
    void operator()(DIR* folder) const { closedir(folder); }
    void operator()(FILE* file) const { std::fclose(file); }
};

/// What a change of the file changes. All zero where one more change may leave it as it is.
void stampOf(const struct stat& status, std::uint64_t (&stamp)[5]) {
    constexpr std::int64_t racySeconds = 2;
    std::ranges::fill(stamp, 0);
    if (std::time(nullptr) - status.st_ctim.tv_sec < racySeconds) return;
    const auto nanoseconds = [](const timespec& time) {
        return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 +
               static_cast<std::uint64_t>(time.tv_nsec);
    };
    stamp[0] = status.st_dev;
    stamp[1] = status.st_ino;
    stamp[2] = static_cast<std::uint64_t>(status.st_size);
    stamp[3] = nanoseconds(status.st_mtim);
    stamp[4] = nanoseconds(status.st_ctim);
}

}  // namespace

struct EntryReader::Walk {
    std::string_view suffix;
    bool isDeep = false;
    const std::function<void(const std::string&)>& onFolder;
    std::set<std::pair<dev_t, ino_t>> entered;
    std::vector<File> files;
};

void EntryReader::begin() {
    ++reading_;
    files_ = 0;
    troubles_.clear();
}

void EntryReader::end() {
    std::erase_if(known_, [&](const auto& known) { return known.second.reading != reading_; });
}

std::vector<EntryReader::File> EntryReader::read(
    const std::string& folder, std::string_view suffix, bool isDeep,
    const std::function<void(const std::string&)>& onFolder) {
    Walk walk{suffix, isDeep, onFolder, {}, {}};
    readFolder(walk, folder, "", 0);
    std::ranges::sort(walk.files, {}, &File::name);
    return std::move(walk.files);
}

void EntryReader::readFolder(Walk& walk, const std::string& path, const std::string& prefix,
                             int depth) {
    walk.onFolder(path);
    const std::unique_ptr<DIR, Close> folder(opendir(path.c_str()));
    if (!folder) {
        if (errno != ENOENT) addTrouble(path, errorFromErrno(errno).description());
        return;
    }
    struct stat own {};
    if (fstat(dirfd(folder.get()), &own) != 0) return;
    if (!walk.entered.emplace(own.st_dev, own.st_ino).second) return;
    while (const auto* found = readdir(folder.get())) {
        const std::string name = found->d_name;
        const bool mayBeFile = name.ends_with(walk.suffix);
        const bool mayBeFolder =
            walk.isDeep && found->d_type != DT_REG && name != "." && name != "..";
        if (!mayBeFile && !mayBeFolder) continue;
        struct stat status {};
        // A link into nothing is what an application that was removed may leave.
        if (fstatat(dirfd(folder.get()), name.c_str(), &status, 0) != 0) continue;
        if (S_ISDIR(status.st_mode) && mayBeFolder) {
            if (depth == deepest) {
                addTrouble(path + "/" + name, "folders nest too deeply");
            } else {
                readFolder(walk, path + "/" + name, prefix + name + "-", depth + 1);
            }
        }
        if (!S_ISREG(status.st_mode) || !mayBeFile) continue;
        if (++files_ > mostFiles) {
            addTrouble(path, "there are too many files");
            return;
        }
        auto entry = entryAt(dirfd(folder.get()), name.c_str(), path + "/" + name, status);
        if (!entry) continue;
        walk.files.push_back({prefix + name.substr(0, name.size() - walk.suffix.size()),
                              path + "/" + name, std::move(entry)});
    }
}

std::shared_ptr<const DesktopEntry> EntryReader::entryAt(int folder, const char* name,
                                                         const std::string& path,
                                                         const struct stat& status) {
    auto& known = known_[path];
    known.reading = reading_;
    std::uint64_t now[5];
    stampOf(status, now);
    if (now[0] == 0 || !std::ranges::equal(now, known.stamp)) parse(folder, name, known);
    if (!known.trouble.empty()) addTrouble(path, known.trouble);
    return known.entry;
}

void EntryReader::parse(int folder, const char* name, Known& known) const {
    std::ranges::fill(known.stamp, 0);
    known.entry = nullptr;
    const auto fail = [&](const QSError& error) { known.trouble = error.description(); };
    const int fd = openat(folder, name, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) return fail(errorFromErrno(errno));
    const std::unique_ptr<FILE, Close> file(fdopen(fd, "rb"));
    struct stat status {};
    if (!file || fstat(fd, &status) != 0) return fail(errorFromErrno(errno));
    // It may have become another file.
    if (!S_ISREG(status.st_mode)) return fail(errorFromErrno(EINVAL));
    if (status.st_size > static_cast<off_t>(mostEntryBytes)) return fail(errorFromErrno(EFBIG));
    std::string text(static_cast<std::size_t>(status.st_size) + 1, '\0');
    text.resize(std::fread(text.data(), 1, text.size(), file.get()));
    if (std::ferror(file.get()) != 0) return fail(errorFromErrno(EIO));
    stampOf(status, known.stamp);
    auto entry = parseDesktopEntry(text, languages_);
    if (!entry) return fail(entry.error());
    known.trouble.clear();
    known.entry = std::make_shared<const DesktopEntry>(std::move(*entry));
}

void EntryReader::addTrouble(const std::string& path, std::string_view why) {
    if (troubles_.size() >= mostTroubles) return;
    troubles_.insert("can't use \"" + path + "\"; " + std::string(why));
}

}  // namespace platform

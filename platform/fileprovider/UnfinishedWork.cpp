#include "platform/fileprovider/UnfinishedWork.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <optional>
#include <vector>

#include "platform/files/ItemNames.h"
#include "platform/files/SystemCalls.h"
#include "platform/files/TreeRemoval.h"
#include "platform/log/Log.h"

namespace platform {

namespace {

constexpr std::int64_t longestKept = 30 * 24 * 60 * 60;  // seconds

std::string hexadecimal(std::uint64_t number) {
    std::array<char, 17> text{};
    const auto end = std::to_chars(text.data(), text.data() + text.size(), number, 16);
    return {text.data(), end.ptr};
}

std::optional<std::uint64_t> numberFrom(std::string_view& text) {
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, 16);
    if (error != std::errc() || end == text.data() + text.size() || *end != '.') return {};
    text.remove_prefix(static_cast<std::size_t>(end - text.data()) + 1);
    return number;
}

}  // namespace

struct UnfinishedWork::Leftover {
    Kind kind;
    ObjectIdentity object;
    ObjectIdentity folder;  ///< zeroes in a record of an earlier version
    std::string token;
    QSURL place;

    /// From the name and target of a record; none for anything else.
    static std::optional<Leftover> read(std::string_view name, const std::string& target) {
        if (name.size() < 3 || name[1] != '.') return {};
        if (std::string_view("rcm").find(name[0]) == std::string_view::npos) return {};
        const auto kind = static_cast<Kind>(name[0]);
        name.remove_prefix(2);
        std::vector<std::uint64_t> numbers;
        while (const auto number = numberFrom(name)) numbers.push_back(*number);
        const bool isToken =
            name.size() == 20 &&
            name.find_first_not_of("abcdefghijklmnopqrstuvwxyz234567") == std::string_view::npos;
        const bool isWhole = numbers.size() == 2 || numbers.size() == 4;
        if (!isWhole || !isToken || !target.starts_with('/')) return {};
        numbers.resize(4);
        return Leftover{kind,
                        {numbers[0], numbers[1]},
                        {numbers[2], numbers[3]},
                        std::string(name),
                        QSURL::fileURLWithPath(target)};
    }
};

UnfinishedWork::UnfinishedWork(const FileSystem& files, std::string folder)
    : files_(files), folder_(std::move(folder)) {}

UnfinishedWork::Record::Record(UnfinishedWork& owner, std::string token, std::string path)
    : owner_(owner), token_(std::move(token)), path_(std::move(path)), name_(hiddenName(token_)) {}

UnfinishedWork::Record::~Record() {
    if (!isKept_ && !path_.empty()) unlink(path_.c_str());
    const std::scoped_lock lock(owner_.mutex_);
    owner_.live_.erase(token_);
}

Result<std::unique_ptr<UnfinishedWork::Record>> UnfinishedWork::begin(
    Kind kind, const QSURL& place, const ObjectIdentity& object, const ObjectIdentity& folder) {
    auto token = randomToken();
    auto path = folder_ + "/" + static_cast<char>(kind);
    for (const auto number : {object.inode, object.generation, folder.inode, folder.generation}) {
        path += "." + hexadecimal(number);
    }
    path += "." + token;
    {
        const std::scoped_lock lock(mutex_);
        live_.insert(token);
    }
    const auto record = [&] {
        if (symlink(place.path().c_str(), path.c_str()) == 0) return 0;
        if (errno != ENAMETOOLONG) return errno;
        // Then the folder is found by its identity alone.
        const auto name = "/" + std::string(place.lastPathComponent());
        return symlink(name.c_str(), path.c_str()) == 0 ? 0 : errno;
    };
    int failure = record();
    if (failure == ENOENT) {
        std::error_code error;
        std::filesystem::create_directories(folder_, error);
        failure = error ? error.value() : record();
    }
    const bool usesNoSpace =
        failure == ENOSPC || failure == EDQUOT || failure == EROFS || failure == EACCES;
    std::unique_ptr<Record> made(
        new Record(*this, std::move(token), failure == 0 ? std::move(path) : std::string()));
    if (failure != 0 && !(usesNoSpace && kind == Kind::Removal)) {
        return std::unexpected(errorFromErrno(failure, folder_));
    }
    return made;
}

void UnfinishedWork::finish(const Locate& locate) {
    const std::scoped_lock alone(finishing_);
    std::vector<std::pair<std::filesystem::path, Leftover>> leftovers;
    std::error_code failure;
    {
        const std::scoped_lock lock(mutex_);
        for (const auto& entry : std::filesystem::directory_iterator(folder_, failure)) {
            std::error_code unreadable;
            const auto target = std::filesystem::read_symlink(entry.path(), unreadable);
            auto leftover = Leftover::read(entry.path().filename().string(), target.string());
            if (unreadable || !leftover || live_.contains(leftover->token)) continue;
            leftovers.emplace_back(entry.path(), std::move(*leftover));
        }
    }
    for (const auto& [path, leftover] : leftovers) {
        if (deal(leftover, path, locate)) unlink(path.c_str());
    }
}

Result<FileDescriptor> UnfinishedWork::openFolder(const Leftover& leftover,
                                                  const Locate& locate) const {
    const auto open = [&](const QSURL& url) -> Result<FileDescriptor> {
        auto folder = files_.openObject(url, O_PATH | O_DIRECTORY);
        if (!folder || leftover.folder.inode == 0) return folder;
        const auto found = readIdentity(folder->get(), "", nullptr, files_.credentials());
        if (!found) return std::unexpected(found.error());
        if (*found != leftover.folder) return std::unexpected(errorFromErrno(ENOENT));
        return folder;
    };
    auto folder = open(leftover.place.URLByDeletingLastPathComponent());
    if (folder || leftover.folder.inode == 0) return folder;
    const auto place = locate(leftover.folder);
    return place ? open(*place) : std::unexpected(place.error());
}

/// Whether the record has served its time.
bool UnfinishedWork::deal(const Leftover& leftover, const std::string& record,
                          const Locate& locate) const {
    const auto hidden = hiddenName(leftover.token);
    const auto parent = openFolder(leftover, locate);
    if (!parent) {
        struct stat status {};
        const bool isRemoved = parent.error().code == ENOENT || parent.error().code == ENOTDIR;
        return isRemoved && lstat(record.c_str(), &status) == 0 &&
               std::time(nullptr) - status.st_mtime > longestKept;
    }
    const auto found = readIdentity(parent->get(), hidden.c_str(), nullptr, files_.credentials());
    if (!found) return found.error().code == ENOENT;
    const bool isStranger = leftover.kind == Kind::Removal && *found != leftover.object;
    if (isStranger || leftover.kind == Kind::Move) {
        const std::string name(leftover.place.lastPathComponent());
        auto candidate = name;
        for (std::uint64_t attempt = 1;; ++attempt) {
            if (renameat2(parent->get(), hidden.c_str(), parent->get(), candidate.c_str(),
                          RENAME_NOREPLACE) == 0) {
                return true;
            }
            if (errno != EEXIST) return false;
            candidate = numberedName(name, nextNumber(attempt));
        }
    }
    QSProgress progress;
    const auto removed = removeTree(parent->get(), hidden, progress);
    Log::platformLog().write(removed ? LogLevel::Info : LogLevel::Error, [&] {
        const auto what = "what was left of an interrupted operation in \"" +
                          files_.nativePath(leftover.place.URLByDeletingLastPathComponent()) + "\"";
        return removed ? "removed " + what
                       : "can't remove " + what + "; " + removed.error().description();
    });
    return removed.has_value();
}

}  // namespace platform

#include "platform/volume/StorageCatalog.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <system_error>
#include <utility>

#include "platform/files/AttributeReader.h"
#include "platform/files/DataFile.h"
#include "platform/files/FileDescriptor.h"
#include "platform/foundation/KeyFile.h"
#include "platform/foundation/QSUUID.h"
#include "platform/log/Log.h"
#include "platform/volume/IdentityStore.h"
#include "platform/volume/Witness.h"

namespace platform {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view group = "Storage";
constexpr std::string_view missingKey = "qp_missingStorage";
constexpr std::size_t mostPaths = 16;
constexpr std::size_t largestRecord = 1 << 20;

/// A path on one line of a key file: bytes that could end or trim it are written as %XX.
std::string encoded(std::string_view path) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string text;
    for (const char c : path) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte > 0x20 && byte != 0x7F && c != '%') {
            text += c;
            continue;
        }
        text += '%';
        text += digits[byte >> 4];
        text += digits[byte & 0x0F];
    }
    return text;
}

std::optional<std::string> decoded(std::string_view text) {
    std::string path;
    while (!text.empty()) {
        if (text.front() != '%') {
            path += text.front();
            text.remove_prefix(1);
            continue;
        }
        unsigned byte = 0;
        const auto* const end = text.data() + std::min<std::size_t>(text.size(), 3);
        if (std::from_chars(text.data() + 1, end, byte, 16).ptr != text.data() + 3) return {};
        path += static_cast<char>(byte);
        text.remove_prefix(3);
    }
    return path;
}

std::uint64_t numberFrom(const std::optional<std::string>& text) {
    std::uint64_t number = 0;
    if (text) std::from_chars(text->data(), text->data() + text->size(), number);
    return number;
}

/// Words for people.
std::string description(const VolumeFingerprint& volume) {
    return "folder " + std::to_string(volume.root.inode) +
           (volume.uuid.empty() ? std::string() : " of file system " + volume.uuid);
}

QSError missing(const std::string& path, std::string_view why) {
    auto error = errorFromErrno(ENOENT, path);
    error.userInfo.emplace(QSDescriptionErrorKey, why);
    error.userInfo.emplace(missingKey, "");
    return error;
}

bool exists(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0;
}

}  // namespace

StorageCatalog::StorageCatalog(std::string dataFolder, std::string stateFolder)
    : dataFolder_(std::move(dataFolder)), stateFolder_(std::move(stateFolder)) {}

Result<StorageCatalog> StorageCatalog::load(std::string dataFolder, std::string stateFolder) {
    StorageCatalog catalog(std::move(dataFolder), std::move(stateFolder));
    if (auto done = catalog.readRecords(); !done) return std::unexpected(std::move(done.error()));
    return catalog;
}

Result<void> StorageCatalog::readRecords() {
    const auto folder = dataFolder_ + "/storages";
    std::error_code failure;
    for (fs::directory_iterator entry(folder, failure), end; !failure && entry != end;
         entry.increment(failure)) {
        auto record = read(entry->path().filename());
        if (!record) return std::unexpected(std::move(record.error()));
        if (*record) records_.push_back(std::move(**record));
    }
    if (!failure || failure == std::errc::no_such_file_or_directory) return {};
    return std::unexpected(errorFromErrno(failure.value(), folder));
}

Result<std::optional<StorageCatalog::Record>> StorageCatalog::read(const std::string& name) const {
    const auto folder = dataFolder_ + "/storages/" + name;
    const auto file = folder + "/storage.conf";
    const auto data = dataWithContentsOfFile(file, largestRecord);
    if (!data) {
        const bool isNone = data.error().code == ENOENT || data.error().code == ENOTDIR;
        if (isNone && !exists(folder + "/volume.db")) return std::nullopt;
        return std::unexpected(data.error());
    }
    const auto values = KeyFile::parse(stringFromData(*data));
    Record record{.name = name,
                  .volume = {values.value(group, "UUID").value_or(""),
                             {numberFrom(values.value(group, "Inode")),
                              numberFrom(values.value(group, "Generation"))}},
                  .isWeak = values.value(group, "Weak") == "true",
                  .paths = {}};
    const auto& root = record.volume.root;
    if (root.inode == 0 || (root.generation == 0 && !record.isWeak)) {
        auto error = errorFromErrno(EILSEQ, file);
        error.userInfo.emplace(QSDescriptionErrorKey,
                               "the record of a storage is damaged; put it back from a backup, or "
                               "remove its folder to have the storage numbered anew");
        return std::unexpected(std::move(error));
    }
    for (std::size_t i = 1; i <= mostPaths; ++i) {
        const auto text = values.value(group, "Path" + std::to_string(i));
        auto path = text ? decoded(*text) : std::nullopt;
        if (path) record.paths.push_back(std::move(*path));
    }
    return record;
}

Result<void> StorageCatalog::write(const Record& record) const {
    const auto& [uuid, root] = record.volume;
    std::string text = "[" + std::string(group) + "]\nUUID=" + uuid +
                       "\nInode=" + std::to_string(root.inode) +
                       "\nGeneration=" + std::to_string(root.generation) +
                       "\nWeak=" + (record.isWeak ? "true" : "false") + "\n";
    for (std::size_t i = 0; i < record.paths.size(); ++i) {
        text += "Path" + std::to_string(i + 1) + "=" + encoded(record.paths[i]) + "\n";
    }
    return writeDataAtomically(dataFromString(text),
                               dataFolder_ + "/storages/" + record.name + "/storage.conf");
}

bool StorageCatalog::isOf(const Record& record, const Storage& storage) {
    const auto& known = record.volume;
    const auto& found = storage.volume;
    if (record.isWeak != storage.isWeak) return false;
    if (record.isWeak) {
        return known.uuid == found.uuid &&
               std::ranges::find(record.paths, storage.resolved) != record.paths.end();
    }
    return known.isSameFolder(found);
}

bool StorageCatalog::holdsIdentifiers(const Record& record) const {
    const auto witness = stateFolder_ + "/storages/" + record.name + "/witness";
    if (!exists(witness)) return exists(dataFolder_ + "/storages/" + record.name + "/volume.db");
    const auto read = Witness::open(witness);
    const auto& marks = read ? read->record() : std::nullopt;
    return !marks || marks->marks.sequence > 1;
}

bool StorageCatalog::isElsewhere(const Record& record, const Storage& than) {
    const auto credentials = Credentials::ofThisProcess();
    return std::ranges::any_of(record.paths, [&](const std::string& path) {
        if (path == than.given || path == than.resolved) return false;
        const FileDescriptor folder(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (!folder) return false;
        const auto found = readIdentity(folder.get(), "", nullptr, credentials);
        return found && *found == record.volume.root;
    });
}

Result<std::string> StorageCatalog::nameOf(const Storage& storage, bool acceptsReplacement) {
    const auto found =
        std::ranges::find_if(records_, [&](const auto& known) { return isOf(known, storage); });
    if (found != records_.end()) {
        noteFound(*found, storage);
        moveFormerLayout(storage, found->name);
        return found->name;
    }
    for (auto& known : records_) {
        const auto wasAt = [&](const std::string& path) {
            return std::ranges::find(known.paths, path) != known.paths.end();
        };
        if (!wasAt(storage.given) && !wasAt(storage.resolved)) continue;
        if (!acceptsReplacement && holdsIdentifiers(known) && !isElsewhere(known, storage)) {
            return std::unexpected(missing(
                storage.given, "the storage is missing: expected " + description(known.volume) +
                                   ", found " + description(storage.volume) +
                                   "; nothing was changed. Make it available again or, if it was "
                                   "replaced for good, run this once with --accept-replacement"));
        }
        std::erase(known.paths, storage.given);
        std::erase(known.paths, storage.resolved);
        if (auto done = write(known); !done) return std::unexpected(done.error());
    }
    return add(storage);
}

Result<std::string> StorageCatalog::add(const Storage& storage) {
    Record record{QSUUID::random().UUIDString(), storage.volume, storage.isWeak, {storage.given}};
    if (storage.resolved != storage.given) record.paths.push_back(storage.resolved);
    if (auto done = write(record); !done) return std::unexpected(done.error());
    moveFormerLayout(storage, record.name);
    records_.push_back(record);
    return record.name;
}

void StorageCatalog::noteFound(Record& found, const Storage& storage) {
    auto now = found;
    now.volume = storage.volume;
    if (now.volume.uuid.empty()) now.volume.uuid = found.volume.uuid;
    for (const auto& path : {storage.resolved, storage.given}) {
        if (std::ranges::find(now.paths, path) == now.paths.end()) {
            now.paths.insert(now.paths.begin(), path);
        }
    }
    if (now.paths.size() > mostPaths) now.paths.resize(mostPaths);
    const bool isSame = now.paths == found.paths && now.volume.uuid == found.volume.uuid &&
                        now.volume.root == found.volume.root;
    if (isSame) return;
    // Nothing depends on it but the words of a later error.
    if (write(now)) found = std::move(now);
}

/// Moves what a single store for all storages was kept in, if it was this storage's. What a process
/// that ended in the middle left is moved by the next one.
void StorageCatalog::moveFormerLayout(const Storage& storage, const std::string& name) const {
    const auto former = dataFolder_ + "/volume.db";
    if (!exists(former)) return;
    const auto volume = IdentityStore::volumeOf(former);
    if (!volume || !isOf({{}, *volume, storage.isWeak, {storage.resolved}}, storage)) return;
    const auto move = [&](const std::string& folder, std::string_view entry) {
        const auto to = folder + "/storages/" + name;
        std::error_code failure;
        fs::create_directories(to, failure);
        fs::permissions(to, fs::perms::owner_all, failure);
        if (exists(to + "/" + std::string(entry))) return;
        fs::rename(folder + "/" + std::string(entry), to + "/" + std::string(entry), failure);
    };
    for (const auto* entry : {"witness", "clock", "unfinished"}) move(stateFolder_, entry);
    for (const auto* entry : {"volume.db-wal", "volume.db"}) move(dataFolder_, entry);
    Log::platformLog().write(LogLevel::Info, [&] {
        return "the store of the storage " + storage.given + " is now below " + dataFolder_ +
               "/storages/" + name;
    });
}

QSError StorageCatalog::errorForMissing(const std::string& given, QSError failure) const {
    for (const auto& known : records_) {
        if (std::ranges::find(known.paths, given) == known.paths.end()) continue;
        return missing(given, "the storage is missing: expected " + description(known.volume) +
                                  ", found nothing (" +
                                  std::generic_category().message(static_cast<int>(failure.code)) +
                                  "); nothing was changed");
    }
    return failure;
}

bool StorageCatalog::meansMissing(const QSError& error) {
    return error.userInfo.contains(missingKey);
}

}  // namespace platform

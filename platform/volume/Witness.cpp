#include "platform/volume/Witness.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace platform {

namespace {

constexpr std::size_t slotSize = 512;  // one sector, which disks write whole
using Slot = std::array<char, slotSize>;

std::uint64_t checksum(std::string_view text) {
    std::uint64_t hash = 0xCBF29CE484222325;  // FNV-1a
    for (const char c : text) hash = (hash ^ static_cast<std::uint8_t>(c)) * 0x100000001B3;
    return hash;
}

constexpr std::string_view title = "tidewell witness 1\n";
constexpr std::string_view serialKey = "serial ";

Slot slotOf(std::uint64_t serial, const Witness::Record& record) {
    const auto text = Witness::encode({std::string(serialKey) + std::to_string(serial), record});
    Slot slot;
    slot.fill('\n');
    std::ranges::copy(text, slot.begin());
    return slot;
}

struct Numbered {
    std::uint64_t serial = 0;
    Witness::Record record;
};

std::optional<Numbered> read(const Slot& slot) {
    std::string_view text(slot.data(), slot.size());
    text = text.substr(0, text.find_last_not_of('\n') + 2);
    const auto found = Witness::decode(text);
    if (!found || !found->line.starts_with(serialKey)) return std::nullopt;
    Numbered numbered{0, found->record};
    const char* end = found->line.data() + found->line.size();
    (void)std::from_chars(found->line.data() + serialKey.size(), end, numbered.serial);
    // Equal bytes prove that nothing else is in the slot.
    if (slotOf(numbered.serial, numbered.record) != slot) return std::nullopt;
    return numbered;
}

Result<void> writeSlot(int fd, const Slot& slot, off_t offset, const std::string& path) {
    const ssize_t written = pwrite(fd, slot.data(), slot.size(), offset);
    if (written != static_cast<ssize_t>(slot.size())) {
        return std::unexpected(errorFromErrno(written < 0 ? errno : ENOSPC, path));
    }
    return {};
}

Result<void> syncFolderOf(const std::string& path) {
    const std::string folder = path.substr(0, path.rfind('/') + 1);
    const FileDescriptor fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd || fsync(fd.get()) != 0) return std::unexpected(errorFromErrno(errno, folder));
    return {};
}

}  // namespace

HighWaterMarks HighWaterMarks::above(const HighWaterMarks& other) const {
    HighWaterMarks result;
    for (std::size_t i = 0; i < counterCount; ++i) {
        result.reserved[i] = std::max(reserved[i], other.reserved[i]);
    }
    result.sequence = std::max(sequence, other.sequence);
    return result;
}

std::string Witness::encode(const Text& text) {
    const auto& [store, history, marks] = text.record;
    char body[slotSize / 2];
    std::snprintf(body, sizeof body,
                  "\nstore %s\nhistory %s\nevent %" PRIu64 "\ndocument %" PRIu64 "\nfile %" PRIu64
                  "\nsequence %" PRIu64 "\n",
                  store.UUIDString().c_str(), history.UUIDString().c_str(), marks[Counter::Event],
                  marks[Counter::Document], marks[Counter::File], marks.sequence);
    const std::string lines = std::string(title) + text.line + body;
    char check[32];
    std::snprintf(check, sizeof check, "check %016" PRIx64 "\n", checksum(lines));
    return lines + check;
}

std::optional<Witness::Text> Witness::decode(std::string_view text) {
    if (!text.starts_with(title)) return std::nullopt;
    const auto end = std::min(text.find('\n', title.size()), text.size());
    Text found{std::string(text.substr(title.size(), end - title.size())), {}};
    auto& marks = found.record.marks;
    char store[37];
    char history[37];
    const int fields =
        std::sscanf(std::string(text.substr(end)).c_str(),
                    " store %36s history %36s event %" SCNu64 " document %" SCNu64 " file %" SCNu64
                    " sequence %" SCNu64,
                    store, history, &marks[Counter::Event], &marks[Counter::Document],
                    &marks[Counter::File], &marks.sequence);
    if (fields != 6) return std::nullopt;
    const auto storeUUID = QSUUID::fromString(store);
    const auto historyUUID = QSUUID::fromString(history);
    if (!storeUUID || !historyUUID) return std::nullopt;
    found.record.store = *storeUUID;
    found.record.history = *historyUUID;
    // Equal bytes prove the checksum.
    if (encode(found) != text) return std::nullopt;
    return found;
}

Result<Witness> Witness::open(std::string path) {
    Witness witness;
    witness.path_ = std::move(path);
    witness.file_.reset(::open(witness.path_.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
    if (!witness.file_ && (errno == EROFS || errno == EACCES)) {
        witness.refusal_ = errno;
        witness.file_.reset(::open(witness.path_.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    }
    if (!witness.file_) {
        if (errno == ENOENT) return witness;
        return std::unexpected(errorFromErrno(errno, witness.path_));
    }
    for (off_t offset : {off_t{0}, static_cast<off_t>(slotSize)}) {
        Slot slot;
        const ssize_t size = pread(witness.file_.get(), slot.data(), slot.size(), offset);
        if (size < 0) return std::unexpected(errorFromErrno(errno, witness.path_));
        if (size != static_cast<ssize_t>(slot.size())) continue;
        const auto found = read(slot);
        if (!found || found->serial < witness.serial_) continue;
        witness.serial_ = found->serial;
        witness.record_ = found->record;
    }
    // Nothing readable: the next write replaces the file.
    if (!witness.record_) witness.file_.reset();
    return witness;
}

Result<void> Witness::write(const Record& record) {
    if (refusal_ != 0) return std::unexpected(errorFromErrno(refusal_, path_));
    const std::uint64_t serial = serial_ + 1;
    const Slot slot = slotOf(serial, record);
    const off_t offset = serial % 2 ? static_cast<off_t>(slotSize) : 0;
    if (file_) {
        if (auto done = writeSlot(file_.get(), slot, offset, path_); !done) return done;
        const bool isOnlyAStep = record_->store == record.store &&
                                 record_->history == record.history &&
                                 record_->marks.reserved == record.marks.reserved;
        if (!isOnlyAStep && fdatasync(file_.get()) != 0) {
            return std::unexpected(errorFromErrno(errno, path_));
        }
    } else {
        const std::string temporary = path_ + ".new";
        FileDescriptor fd(
            ::open(temporary.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
        if (!fd) return std::unexpected(errorFromErrno(errno, temporary));
        // Both slots exist from the start, so that no later write needs room on the disk.
        for (const off_t place : {off_t{0}, static_cast<off_t>(slotSize)}) {
            if (auto done = writeSlot(fd.get(), slot, place, temporary); !done) return done;
        }
        if (fsync(fd.get()) != 0 || rename(temporary.c_str(), path_.c_str()) != 0) {
            return std::unexpected(errorFromErrno(errno, path_));
        }
        if (auto done = syncFolderOf(path_); !done) return done;
        file_ = std::move(fd);
    }
    serial_ = serial;
    record_ = record;
    return {};
}

}  // namespace platform

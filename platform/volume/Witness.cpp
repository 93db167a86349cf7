#include "platform/volume/Witness.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace platform {

namespace {

constexpr std::size_t slotSize = 512;  // one sector, which disks write whole
using Slot = std::array<char, slotSize>;

struct Numbered {
    std::uint64_t serial = 0;
    Witness::Record record;
};

std::uint64_t checksum(std::string_view text) {
    std::uint64_t hash = 0xCBF29CE484222325;  // FNV-1a
    for (const char c : text) hash = (hash ^ static_cast<std::uint8_t>(c)) * 0x100000001B3;
    return hash;
}

Slot encode(const Numbered& numbered) {
    const auto& [store, history, marks] = numbered.record;
    Slot slot;
    slot.fill('\n');
    char text[slotSize];
    int size = std::snprintf(
        text, sizeof text,
        "tidewell witness 1\nserial %" PRIu64
        "\nstore %s\nhistory %s\nevent "
        "%" PRIu64 "\ndocument %" PRIu64 "\nfile %" PRIu64 "\nsequence %" PRIu64 "\n",
        numbered.serial, store.UUIDString().c_str(), history.UUIDString().c_str(),
        marks[Counter::Event], marks[Counter::Document], marks[Counter::File], marks.sequence);
    const auto sum = checksum({text, static_cast<std::size_t>(size)});
    size += std::snprintf(text + size, sizeof text - static_cast<std::size_t>(size),
                          "check %016" PRIx64 "\n", sum);
    std::copy_n(text, size, slot.begin());
    return slot;
}

std::optional<Numbered> decode(const Slot& slot) {
    char text[slotSize + 1] = {};
    std::copy(slot.begin(), slot.end(), text);
    Numbered numbered;
    auto& marks = numbered.record.marks;
    char store[37];
    char history[37];
    const int fields =
        std::sscanf(text,
                    "tidewell witness 1 serial %" SCNu64 " store %36s history %36s event %" SCNu64
                    " document %" SCNu64 " file %" SCNu64 " sequence %" SCNu64,
                    &numbered.serial, store, history, &marks[Counter::Event],
                    &marks[Counter::Document], &marks[Counter::File], &marks.sequence);
    if (fields != 7) return std::nullopt;
    const auto storeUUID = QSUUID::fromString(store);
    const auto historyUUID = QSUUID::fromString(history);
    if (!storeUUID || !historyUUID) return std::nullopt;
    numbered.record.store = *storeUUID;
    numbered.record.history = *historyUUID;
    // Equal bytes prove the checksum and that nothing else is in the slot.
    if (encode(numbered) != slot) return std::nullopt;
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

bool HighWaterMarks::exceeds(const HighWaterMarks& other) const {
    return above(other) != other;
}

Result<Witness> Witness::open(std::string path) {
    Witness witness;
    witness.path_ = std::move(path);
    witness.file_.reset(::open(witness.path_.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
    if (!witness.file_) {
        if (errno == ENOENT) return witness;
        return std::unexpected(errorFromErrno(errno, witness.path_));
    }
    for (off_t offset : {off_t{0}, static_cast<off_t>(slotSize)}) {
        Slot slot;
        const ssize_t size = pread(witness.file_.get(), slot.data(), slot.size(), offset);
        if (size < 0) return std::unexpected(errorFromErrno(errno, witness.path_));
        if (size != static_cast<ssize_t>(slot.size())) continue;
        const auto found = decode(slot);
        if (!found || found->serial < witness.serial_) continue;
        witness.serial_ = found->serial;
        witness.record_ = found->record;
    }
    // Nothing readable: the next write replaces the file.
    if (!witness.record_) witness.file_.reset();
    return witness;
}

Result<void> Witness::write(const Record& record) {
    const std::uint64_t serial = serial_ + 1;
    const Slot slot = encode({serial, record});
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

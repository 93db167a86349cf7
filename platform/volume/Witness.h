#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/files/FileDescriptor.h"
#include "platform/foundation/QSError.h"
#include "platform/foundation/QSUUID.h"

namespace platform {

/// The counters whose values never repeat.
enum class Counter : std::uint8_t { Event, Document, File };
inline constexpr std::size_t counterCount = 3;

/// Up to where the values of each counter may have been handed out, and how many durable changes
/// the store has seen. A clean end gives back what was reserved and not allocated; the changes only
/// grow.
struct HighWaterMarks {
    std::array<std::uint64_t, counterCount> reserved{};
    std::uint64_t sequence = 0;

    [[nodiscard]] std::uint64_t& operator[](Counter counter) {
        return reserved[static_cast<std::size_t>(counter)];
    }
    [[nodiscard]] std::uint64_t operator[](Counter counter) const {
        return reserved[static_cast<std::size_t>(counter)];
    }
    void raise(Counter counter, std::uint64_t value) {
        (*this)[counter] = std::max((*this)[counter], value);
    }
    /// The larger of each.
    [[nodiscard]] HighWaterMarks above(const HighWaterMarks& other) const;

    friend bool operator==(const HighWaterMarks&, const HighWaterMarks&) = default;
};

/// A small file outside the store's folder that remembers how far a store had come, so that an
/// older copy of the store put in its place is noticed. It is written after the store's commit and
/// before anything of that commit is handed out.
///
/// Two slots take turns, so that a torn write leaves the record before it. Not synchronised.
class Witness {
  public:
    struct Record {
        QSUUID store;
        QSUUID history;
        HighWaterMarks marks;
    };

    /// A record as text: a title, a line that each kind of witness has for itself, the record, a
    /// checksum.
    struct Text {
        std::string line;
        Record record;
    };
    [[nodiscard]] static std::string encode(const Text& text);
    /// None unless `text` is, byte for byte, what encode makes.
    [[nodiscard]] static std::optional<Text> decode(std::string_view text);

    /// Reads the file at `path`; a missing or unreadable record is no failure but none.
    [[nodiscard]] static Result<Witness> open(std::string path);

    [[nodiscard]] const std::optional<Record>& record() const { return record_; }

    /// Durable on return where a reservation or a UUID is new; a step of the sequence alone is
    /// left to the system to write, since it only has to survive somebody swapping the store under
    /// a running system, not a power cut. The first write makes the file (whole or not at all).
    Result<void> write(const Record& record);

  private:
    std::string path_;
    FileDescriptor file_;
    int refusal_ = 0;           ///< errno: the file can be read only
    std::uint64_t serial_ = 0;  ///< of the record in the file; its parity names the slot
    std::optional<Record> record_;
};

}  // namespace platform

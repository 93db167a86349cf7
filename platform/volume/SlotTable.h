#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace platform {

/// A hash table of 32-bit numbers of things whose keys live with the things: four bytes a slot,
/// linear probing, at most 7/8 full. `keyOf(number)` gives the current key of a thing.
///
/// A thing whose key changes is inserted again; its old slot stays behind, matches nothing any more
/// and goes when the table grows. Not synchronised.
class SlotTable {
  public:
    static constexpr std::uint32_t none = 0xFFFFFFFF;

    template <typename KeyOf>
    [[nodiscard]] std::uint32_t find(std::uint64_t key, KeyOf keyOf) const {
        if (slots_.empty()) return none;
        for (std::size_t at = home(key);; at = (at + 1) & (slots_.size() - 1)) {
            const std::uint32_t number = slots_[at];
            if (number == none || keyOf(number) == key) return number;
        }
    }

    /// REQUIRES: no other thing has the key of `number`; `number` is not in the table under it.
    template <typename KeyOf>
    void insert(std::uint32_t number, KeyOf keyOf) {
        if ((used_ + 1) * 8 > slots_.size() * 7) grow(keyOf);
        put(number, keyOf(number));
    }

    void clear() {
        slots_ = {};
        used_ = 0;
    }
    [[nodiscard]] std::size_t bytes() const { return slots_.capacity() * sizeof(std::uint32_t); }

  private:
    [[nodiscard]] std::size_t home(std::uint64_t key) const {
        return static_cast<std::size_t>((key * 0x9E3779B97F4A7C15) >> shift_);
    }
    void put(std::uint32_t number, std::uint64_t key) {
        std::size_t at = home(key);
        while (slots_[at] != none) at = (at + 1) & (slots_.size() - 1);
        slots_[at] = number;
        ++used_;
    }
    template <typename KeyOf>
    void grow(KeyOf keyOf) {
        const std::vector<std::uint32_t> old = std::move(slots_);
        shift_ = old.empty() ? 64 - 6 : shift_ - 1;
        slots_.assign(old.empty() ? 64 : old.size() * 2, none);
        used_ = 0;
        for (const std::uint32_t number : old) {
            if (number == none) continue;
            // Slots left behind by key changes name things that have a slot of their own.
            if (const auto key = keyOf(number); find(key, keyOf) == none) put(number, key);
        }
    }

    std::vector<std::uint32_t> slots_;
    std::size_t used_ = 0;
    int shift_ = 64 - 6;
};

}  // namespace platform

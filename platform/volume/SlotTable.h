#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace platform {

/// A hash table of 32-bit numbers of things whose keys live with the things: four bytes a slot,
/// linear probing, at most 7/8 full. `keyOf(number)` gives the current key of a thing, or noKey for
/// a removed one.
///
/// A thing whose key changes is inserted again; its old slot stays behind, matches nothing any more
/// and goes when the table is made anew. Not synchronised.
class SlotTable {
  public:
    static constexpr std::uint32_t none = 0xFFFFFFFF;
    static constexpr std::uint64_t noKey = ~std::uint64_t{0};

    template <typename KeyOf>
    [[nodiscard]] std::uint32_t find(std::uint64_t key, KeyOf keyOf) const {
        return find(key, keyOf, [](std::uint32_t) { return true; });
    }
    /// The thing with that key for which `matches` too; for keys that several things may share.
    template <typename KeyOf, typename Matches>
    [[nodiscard]] std::uint32_t find(std::uint64_t key, KeyOf keyOf, Matches matches) const {
        if (slots_.empty()) return none;
        for (std::size_t at = home(key);; at = (at + 1) & (slots_.size() - 1)) {
            const std::uint32_t number = slots_[at];
            if (number == none || (keyOf(number) == key && matches(number))) return number;
        }
    }

    /// REQUIRES: `number` is not in the table under its key.
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
    /// Makes the table anew, larger unless slots that were left behind were what filled it.
    template <typename KeyOf>
    void grow(KeyOf keyOf) {
        std::vector<std::uint32_t> numbers = std::move(slots_);
        std::size_t size = std::max<std::size_t>(numbers.size(), 64);
        std::ranges::sort(numbers);
        const auto repeated = std::ranges::unique(numbers);
        numbers.erase(repeated.begin(), repeated.end());
        std::erase_if(numbers,
                      [&](auto number) { return number == none || keyOf(number) == noKey; });
        if (numbers.size() * 2 > size) size *= 2;
        shift_ = 64 - std::countr_zero(size);
        slots_.assign(size, none);
        used_ = 0;
        for (const std::uint32_t number : numbers) put(number, keyOf(number));
    }

    std::vector<std::uint32_t> slots_;
    std::size_t used_ = 0;
    int shift_ = 64 - 6;
};

}  // namespace platform

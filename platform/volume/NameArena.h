#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

namespace platform {

/// Names of directory entries, one length byte and the bytes each, in chunks that never move.
/// Up to 4 GiB in all; names beyond come back empty. Not synchronised.
class NameArena {
  public:
    /// Where a name lies; 0 is the empty name.
    using Place = std::uint32_t;

    /// REQUIRES: at most 255 bytes.
    [[nodiscard]] Place add(std::string_view name);
    [[nodiscard]] std::string_view at(Place place) const;
    /// Counts the name's bytes as garbage; they are used again only after a rebuild.
    void drop(Place place) { garbage_ += at(place).size() + 1; }

    /// More than half of the bytes, and not few, are garbage: the owner should copy what it
    /// needs into a new arena.
    [[nodiscard]] bool wantsRebuild() const { return garbage_ * 2 > bytes() && bytes() > 1 << 20; }
    [[nodiscard]] std::size_t bytes() const { return chunks_.size() * chunkSize; }

  private:
    static constexpr std::size_t chunkSize = 1 << 16;
    using Chunk = std::unique_ptr<char[]>;

    std::vector<Chunk> chunks_;
    std::size_t filled_ = chunkSize;  ///< of the last chunk
    std::size_t garbage_ = 0;
};

}  // namespace platform

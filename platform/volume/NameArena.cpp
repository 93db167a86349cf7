#include "platform/volume/NameArena.h"

#include <cstring>

namespace platform {

NameArena::Place NameArena::add(std::string_view name) {
    if (name.empty() || name.size() > 255) return 0;
    if (filled_ + 1 + name.size() > chunkSize) {
        if (chunks_.size() == chunkSize) return 0;
        chunks_.push_back(std::make_unique_for_overwrite<char[]>(chunkSize));
        filled_ = chunks_.size() == 1 ? 1 : 0;  // place 0 is taken
    }
    char* at = chunks_.back().get() + filled_;
    *at = static_cast<char>(name.size());
    std::memcpy(at + 1, name.data(), name.size());
    const auto place = static_cast<Place>((chunks_.size() - 1) * chunkSize + filled_);
    filled_ += 1 + name.size();
    return place;
}

std::string_view NameArena::at(Place place) const {
    if (place == 0) return {};
    const char* at = chunks_[place / chunkSize].get() + place % chunkSize;
    return {at + 1, static_cast<std::uint8_t>(*at)};
}

}  // namespace platform

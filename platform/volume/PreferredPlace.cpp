#include "platform/volume/PreferredPlace.h"

#include <utility>

namespace platform {

namespace {
thread_local PreferredPlace* innermost = nullptr;
}

PreferredPlace::PreferredPlace(QSURL place, const ObjectIdentity& object)
    : place_(std::move(place)), object_(object), outer_(std::exchange(innermost, this)) {}

PreferredPlace::~PreferredPlace() {
    innermost = outer_;
}

const QSURL* PreferredPlace::ofObject(std::uint64_t inode) {
    for (const auto* place = innermost; place; place = place->outer_) {
        if (place->object_.inode == inode) return &place->place_;
    }
    return nullptr;
}

}  // namespace platform

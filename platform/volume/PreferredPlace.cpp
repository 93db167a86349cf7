#include "platform/volume/PreferredPlace.h"

#include <utility>

namespace platform {

namespace {
thread_local PreferredPlace* innermost = nullptr;
}

PreferredPlace::PreferredPlace(QSURL place, std::uint64_t inode)
    : place_(std::move(place)), inode_(inode), outer_(std::exchange(innermost, this)) {}

PreferredPlace::~PreferredPlace() {
    innermost = outer_;
}

const QSURL* PreferredPlace::ofObject(std::uint64_t inode) {
    for (const auto* place = innermost; place; place = place->outer_) {
        if (place->inode_ == inode) return &place->place_;
    }
    return nullptr;
}

}  // namespace platform

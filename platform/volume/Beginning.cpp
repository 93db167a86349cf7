#include "platform/volume/Beginning.h"

#include <cstdlib>
#include <sstream>

namespace platform {

Beginning Beginning::now(const ElapsedClock::Sources& clocks) {
    const auto wall = clocks.wall().seconds;
    return {wall, wall - clocks.sinceBoot().count(), clocks.boot()};
}

std::string Beginning::text() const {
    return std::to_string(wall) + " " + std::to_string(booted) + " " + boot;
}

std::optional<Beginning> Beginning::fromText(std::string_view text) {
    std::istringstream stream{std::string(text)};
    Beginning read;
    if (stream >> read.wall >> read.booted >> read.boot) return read;
    return std::nullopt;
}

bool Beginning::isComparableTo(const Beginning& other) const {
    constexpr std::int64_t tolerance = 1;  // both clocks are rounded down
    return boot == other.boot && std::abs(booted - other.booted) <= tolerance;
}

}  // namespace platform

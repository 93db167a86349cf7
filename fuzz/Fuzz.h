#pragma once

#include <cstddef>
#include <cstdint>
#include <source_location>

#include "platform/foundation/QSPropertyList.h"
#include "platform/foundation/fatalError.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size);

namespace fuzz {

/// Wide enough for whatever came through the default limits and was written anew: shared containers
/// are then stored once per reference.
inline constexpr platform::QSPropertyListLimits wideLimits = {
    .bytes = 16U << 20, .depth = 40, .objects = 1U << 20, .expandedBytes = 64U << 20};

/// Ends the run with a finding where `holds` is false.
inline void require(bool holds, const char* property,
                    std::source_location location = std::source_location::current()) {
    if (!holds) platform::fatalError(property, location);
}

}  // namespace fuzz

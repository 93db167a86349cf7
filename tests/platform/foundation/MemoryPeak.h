#pragma once

#include <cstddef>
#include <functional>

namespace tests {

/// The most heap memory that `work` held at one moment, beyond what was held before. Zero in a
/// build without a sanitizer, which has no place to count. Other threads must be idle.
std::size_t memoryPeak(const std::function<void()>& work);

}  // namespace tests

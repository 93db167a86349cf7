#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizers' run-time library has these; GCC ships no header for them.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*allocated)(const volatile void*,
                                                                           std::size_t),
                                                         void (*freed)(const volatile void*));
extern "C" std::size_t __sanitizer_get_allocated_size(const volatile void* block);
#endif

namespace tests {

/// The most heap memory that `work` held at one moment, beyond what was held before. Zero in a
/// build without a sanitizer, which has no place to count. Other threads must be idle.
inline std::size_t memoryPeak(const std::function<void()>& work) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    static std::size_t held, peak;
    static bool counting = false;
    static const int installed = __sanitizer_install_malloc_and_free_hooks(
        [](const volatile void*, std::size_t size) {
            if (counting) peak = std::max(peak, held += size);
        },
        [](const volatile void* block) {
            if (counting && block) held -= __sanitizer_get_allocated_size(block);
        });
    counting = installed != 0;
    held = peak = 0;
    work();
    counting = false;
    return peak;
#else
    work();
    return 0;
#endif
}

}  // namespace tests

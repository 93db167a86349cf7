#include "MemoryPeak.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#include <algorithm>
#include <atomic>

// The sanitizers' run-time library has these; GCC ships no header for them.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*allocated)(const volatile void*,
                                                                           std::size_t),
                                                         void (*freed)(const volatile void*));
extern "C" std::size_t __sanitizer_get_allocated_size(const volatile void* block);

namespace tests {

namespace {

std::atomic<bool> counting = false;
std::size_t held = 0;
std::size_t peak = 0;

void allocated(const volatile void*, std::size_t size) {
    if (!counting) return;
    held += size;
    peak = std::max(peak, held);
}

void freed(const volatile void* block) {
    if (counting && block) held -= __sanitizer_get_allocated_size(block);
}

}  // namespace

std::size_t memoryPeak(const std::function<void()>& work) {
    static const int installed = __sanitizer_install_malloc_and_free_hooks(allocated, freed);
    if (installed == 0) return 0;
    held = peak = 0;
    counting = true;
    work();
    counting = false;
    return peak;
}

}  // namespace tests

#else

std::size_t tests::memoryPeak(const std::function<void()>& work) {
    work();
    return 0;
}

#endif

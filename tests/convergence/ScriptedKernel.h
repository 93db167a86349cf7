#pragma once

#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <set>

#include "platform/volume/KernelEvents.h"
#include "tests/convergence/Recipes.h"

namespace tests {

/// How the kernel behaves in a run, beyond the life of one source. Any thread.
class KernelScript {
  public:
    KernelScript(unsigned faults, std::uint64_t seed) : faults_(faults), random_(seed) {}

    /// While calm, it keeps nothing back and invents nothing.
    void setCalm(bool isCalm) { isCalm_ = isCalm; }
    [[nodiscard]] std::size_t overflows() const { return overflows_; }

  private:
    friend class ScriptedKernel;

    const unsigned faults_;
    std::atomic<bool> isCalm_ = true;
    std::atomic<std::size_t> overflows_ = 0;
    Random random_;  // used by the source alone
};

/// The kernel's own events, delivered as a kernel may deliver them: neighbours merged, cut into
/// several reads, with names that never were, and with the tail lost where the queue was too short.
/// Watches are numbers of its own, which it may use again as soon as the kernel has released them.
class ScriptedKernel final : public platform::KernelEventSource {
  public:
    ScriptedKernel(std::unique_ptr<platform::KernelEventSource> kernel,
                   std::shared_ptr<KernelScript> script)
        : kernel_(std::move(kernel)), script_(std::move(script)) {}

    [[nodiscard]] platform::Result<int> addWatch(int folder) override;
    void removeWatch(int watch) override;
    [[nodiscard]] std::vector<platform::KernelEvent> read() override;
    [[nodiscard]] int descriptor() const override { return kernel_->descriptor(); }

  private:
    [[nodiscard]] bool happens(unsigned fault, std::size_t oneIn);
    [[nodiscard]] int numberOf(int kernelWatch);
    void receive(std::vector<platform::KernelEvent> events);
    void dropTail();
    void mergeNeighbours();
    void inventName();

    const std::unique_ptr<platform::KernelEventSource> kernel_;
    const std::shared_ptr<KernelScript> script_;
    std::map<int, int> numbers_;  // by the kernel's own
    std::set<int> free_;
    int next_ = 1;
    std::deque<platform::KernelEvent> queue_;
};

}  // namespace tests

#include "tests/convergence/ScriptedKernel.h"

#include <sys/inotify.h>

#include <algorithm>
#include <cerrno>

#include "tests/convergence/Convergence.h"

namespace tests {

using platform::KernelEvent;

namespace {

constexpr std::size_t mostWatches = 4;  // where there is a limit
constexpr std::uint32_t aboutWatches = IN_IGNORED | IN_Q_OVERFLOW | IN_UNMOUNT;

}  // namespace

platform::Result<int> ScriptedKernel::addWatch(int folder) {
    const auto watch = kernel_->addWatch(folder);
    if (!watch || numbers_.contains(*watch)) return watch ? numbers_.at(*watch) : watch;
    if ((script_->faults_ & faultWatchLimit) != 0 && numbers_.size() >= mostWatches) {
        kernel_->removeWatch(*watch);
        return std::unexpected(platform::errorFromErrno(ENOSPC));
    }
    return numberOf(*watch);
}

int ScriptedKernel::numberOf(int kernelWatch) {
    const auto [number, isNew] = numbers_.emplace(kernelWatch, next_);
    if (!isNew) return number->second;
    if (!free_.empty()) {
        number->second = *free_.begin();
        free_.erase(free_.begin());
    } else {
        ++next_;
    }
    return number->second;
}

void ScriptedKernel::removeWatch(int watch) {
    const auto found =
        std::ranges::find(numbers_, watch, [](const auto& entry) { return entry.second; });
    if (found != numbers_.end()) kernel_->removeWatch(found->first);
}

bool ScriptedKernel::happens(unsigned fault, std::size_t oneIn) {
    return !script_->isCalm_ && (script_->faults_ & fault) != 0 &&
           below(script_->random_, oneIn) == 0;
}

std::vector<KernelEvent> ScriptedKernel::read() {
    receive(kernel_->read());
    if (happens(faultOverflow, 12)) dropTail();
    if (happens(faultMerges, 2)) mergeNeighbours();
    if (happens(faultGhosts, 3)) inventName();
    auto end = queue_.end();
    if (happens(faultSplits, 2)) {
        end = queue_.begin() +
              static_cast<std::ptrdiff_t>(below(script_->random_, queue_.size() + 1));
    }
    std::vector<KernelEvent> events(queue_.begin(), end);
    queue_.erase(queue_.begin(), end);
    for (const auto& event : events) {
        const bool hasEnded = (event.mask & IN_IGNORED) != 0;
        if (hasEnded && (script_->faults_ & faultWatchReuse) != 0) free_.insert(event.watch);
    }
    return events;
}

/// Puts events at the end of the queue, by our own numbers.
void ScriptedKernel::receive(std::vector<KernelEvent> events) {
    for (auto& event : events) {
        const auto number = numbers_.find(event.watch);
        if (number == numbers_.end()) {
            if (event.watch < 0) queue_.push_back(event);  // an overflow of its own
            continue;
        }
        event.watch = number->second;
        if ((event.mask & IN_IGNORED) != 0) {
            numbers_.erase(number);
        }
        queue_.push_back(std::move(event));
    }
}

void ScriptedKernel::dropTail() {
    if (queue_.empty()) return;
    queue_.resize(below(script_->random_, queue_.size()));
    queue_.push_back({-1, IN_Q_OVERFLOW, {}});
    ++script_->overflows_;
}

void ScriptedKernel::mergeNeighbours() {
    std::deque<KernelEvent> merged;
    for (auto& event : queue_) {
        if (!merged.empty() && merged.back().watch == event.watch &&
            merged.back().name == event.name &&
            ((merged.back().mask | event.mask) & aboutWatches) == 0) {
            merged.back().mask |= event.mask;
        } else {
            merged.push_back(std::move(event));
        }
    }
    queue_ = std::move(merged);
}

void ScriptedKernel::inventName() {
    if (numbers_.empty()) return;
    const auto watch = std::next(
        numbers_.begin(), static_cast<std::ptrdiff_t>(below(script_->random_, numbers_.size())));
    queue_.push_back(
        {watch->second, IN_CLOSE_WRITE, "#" + std::to_string(script_->random_() >> 40)});
}

}  // namespace tests

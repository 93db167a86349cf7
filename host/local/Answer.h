#pragma once

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <utility>

#include "platform/foundation/QSError.h"

namespace host {

/// The answer of an extension to one request, on whatever threads it calls: any number of
/// parts, then the end. What comes after the end, or after the wait was given up, is dropped.
template <typename Parts, typename End>
class Answer {
  public:
    /// Calls `add(Parts&)` under a lock.
    template <typename Add>
    void collect(Add&& add) {
        const std::scoped_lock lock(mutex_);
        if (!end_) add(parts_);
    }

    void finish(platform::Result<End> end) {
        const std::scoped_lock lock(mutex_);
        if (end_) return;
        end_ = std::move(end);
        finished_.notify_all();
    }

    /// Blocks for the end up to the deadline; whether it has come.
    [[nodiscard]] bool waitFor(std::chrono::milliseconds deadline) {
        std::unique_lock lock(mutex_);
        return finished_.wait_for(lock, deadline, [this] { return end_.has_value(); });
    }

    /// Blocks for the end; ETIMEDOUT with the parts so far when the deadline passes.
    /// REQUIRES: called once.
    [[nodiscard]] std::pair<Parts, platform::Result<End>> wait(std::chrono::milliseconds deadline) {
        std::unique_lock lock(mutex_);
        if (!finished_.wait_for(lock, deadline, [this] { return end_.has_value(); })) {
            end_ = std::unexpected(platform::errorFromErrno(ETIMEDOUT));
        }
        return {std::move(parts_), *end_};
    }

  private:
    std::mutex mutex_;
    std::condition_variable finished_;
    // Guarded by mutex_.
    Parts parts_;
    std::optional<platform::Result<End>> end_;
};

}  // namespace host

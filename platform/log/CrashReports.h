#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "platform/foundation/QSDate.h"
#include "platform/foundation/QSError.h"

namespace platform {

/// Diagnostic reports of a process that goes on running. Any number of threads and processes may
/// share a folder; its limits hold for all of them together.
class CrashReports {
  public:
    using Clock = std::function<QSDate()>;

    /// Reports go to `folder` (a native path, made with mode 0700 where missing). `clock` is called
    /// from any thread that reports.
    explicit CrashReports(std::string folder, Clock clock = QSDate::now)
        : folder_(std::move(folder)), clock_(std::move(clock)) {}

    /// Writes "crash-TIME-KIND.txt" with `message`, `exceptionCode` and the calling thread's stack
    /// trace, whole or not at all, durably. At most 20 reports are kept, the oldest go; of one kind
    /// of message (the text with its numbers left out) one report an hour is written and the rest
    /// are answered with success. Any thread; blocks for the write.
    Result<void> simulateCrash(std::uint32_t exceptionCode, std::string_view message) const;

  private:
    std::string folder_;
    Clock clock_;
};

}  // namespace platform

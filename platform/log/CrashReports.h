#pragma once

#include <cstdint>
#include <string_view>

#include "platform/foundation/QSError.h"

namespace platform {

/// Diagnostic reports of a process that goes on running.
class CrashReports {
  public:
    /// Reports go to `folder` (a native path, made with mode 0700 where missing).
    explicit CrashReports(std::string folder) : folder_(std::move(folder)) {}

    /// Writes one file with `message`, `exceptionCode` and the calling thread's stack trace, whole
    /// or not at all. At most 20 files are kept, the oldest go; of one kind of message (the text
    /// with its numbers left out) one report an hour is written and the rest are answered with
    /// success. Any thread; blocks for the write.
    Result<void> simulateCrash(std::uint32_t exceptionCode, std::string_view message) const;

  private:
    std::string folder_;
};

}  // namespace platform

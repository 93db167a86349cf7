#pragma once

#include <chrono>
#include <string>

#include "cli/format.h"
#include "platform/foundation/QSError.h"

namespace cli {

class Progress;

/// Standard output, collected into large writes but never held back for long. One thread.
class Output {
  public:
    /// Does not own `fd`. `progress` must outlive the output.
    Output(int fd, Progress& progress);

    [[nodiscard]] int descriptor() const { return fd_; }
    [[nodiscard]] const Style& style() const { return style_; }
    /// Text appended here goes out with the next flush.
    [[nodiscard]] std::string& text() { return text_; }

    /// To be called after each item: writes where much has come together or some time has passed.
    /// False once nothing can be written any more, because of an error or because the reader has
    /// closed its end.
    bool pace();
    /// Writes at once; returns as pace() does.
    bool flush();
    /// Writes what is left. A reader that has closed its end is no error.
    [[nodiscard]] platform::Result<void> finish();

  private:
    using Clock = std::chrono::steady_clock;
    void write();

    int fd_;
    Progress& progress_;
    Style style_;
    std::string text_;
    Clock::time_point written_ = Clock::now();
    int failure_ = 0;  // errno of the first write that failed
};

}  // namespace cli

#pragma once

#include <chrono>
#include <mutex>
#include <string_view>

namespace cli {

/// A line on standard error that shows how far long work is and is cleared when it ends. Nothing is
/// drawn in the first half second, nor where standard error is no terminal. Any thread.
class Progress {
  public:
    explicit Progress(bool isOn) : isOn_(isOn) {}
    ~Progress() { end(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// REQUIRES: `text` is one line of printable characters.
    void update(std::string_view text);
    /// Erases the line; nothing is drawn any more.
    void end();

  private:
    using Clock = std::chrono::steady_clock;

    std::mutex mutex_;
    // Guarded by mutex_.
    bool isOn_;
    bool isDrawn_ = false;
    Clock::time_point next_ = Clock::now() + std::chrono::milliseconds(500);
};

}  // namespace cli

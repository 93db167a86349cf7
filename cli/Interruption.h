#pragma once

#include <csignal>

namespace cli {

/// While it lives, the first SIGINT or SIGTERM ends waits instead of the process; the second one
/// ends the process, should something hang. So does the first where no descriptor was left to take
/// it with. One at a time; one thread.
class Interruption {
  public:
    Interruption();
    ~Interruption();
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;

    [[nodiscard]] bool hasCome() const;

    /// Blocks until `input` is readable. False where the interruption came first, or the reader
    /// of `output` has closed it.
    [[nodiscard]] bool waitFor(int input, int output) const;

  private:
    struct sigaction onInterrupt_ {};
    struct sigaction onTerminate_ {};
};

}  // namespace cli

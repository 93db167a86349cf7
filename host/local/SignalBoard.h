#pragma once

#include <cstdint>
#include <mutex>
#include <set>
#include <string>

#include "platform/foundation/QSError.h"

namespace host {

/// Hands the signals of an extension to whoever waits for them. Any thread; nothing here blocks or
/// calls out, so that an extension that waits for its signal to be taken gets its answer at once.
class SignalBoard {
  public:
    /// What has arrived; of two the greater counts.
    enum class Signal : std::uint8_t {
        None,
        Elsewhere,  ///< something happened in the tree, of which the container may know nothing
        Signalled,
    };

    /// Where the signals for one container arrive, as long as it lives.
    class Inbox {
      public:
        Inbox(SignalBoard& board, std::string container);
        ~Inbox();
        Inbox(const Inbox&) = delete;
        Inbox& operator=(const Inbox&) = delete;

        /// Readable, for poll, while a signal waits; -1 with the reason in errno where the
        /// process has no descriptor left.
        [[nodiscard]] int descriptor() const { return descriptor_; }
        /// What came since the last call.
        [[nodiscard]] Signal pop();

      private:
        friend class SignalBoard;
        // Constant after construction.
        SignalBoard& board_;
        std::string container_;
        int descriptor_;

        Signal signal_ = Signal::None;  // guarded by board_.mutex_
    };

    /// The extension signalled the container. Where it is all directories, that also means the
    /// working set, for which no extension has a watch of its own.
    void signal(const std::string& container);

  private:
    std::mutex mutex_;
    std::set<Inbox*> inboxes_;  // guarded by mutex_
};

}  // namespace host

#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "host/ExtensionSession.h"
#include "host/Page.h"
#include "host/SignalBoard.h"
#include "platform/foundation/QSError.h"

namespace host {

/// One who follows a container: the extension watches it until the handle goes. A signal says
/// only that something may have happened; the changes since the last anchor say what.
///
/// The extension watches a folder at the place where it was. So a folder that was moved, or that is
/// below one that was, is watched anew at its new place and counts as signalled.
///
/// One thread at a time; must not outlive its service.
class Following {
  public:
    /// `everywhere` keeps all directories watched, so that folders that move are noticed. All must
    /// outlive the following, or are kept by it.
    [[nodiscard]] static platform::Result<std::unique_ptr<Following>> begin(
        ExtensionSession& session, std::shared_ptr<SignalBoard> board, const std::string& container,
        std::shared_ptr<void> everywhere);

    /// Blocks until the container has been signalled since the last call (the first time: since the
    /// beginning), up to the deadline. False where it has not.
    [[nodiscard]] bool wait(std::chrono::milliseconds deadline);

    /// One page of what happened to the container after the anchor. The three wide containers are
    /// asked through one enumerator as long as this lives, so that it knows which app libraries the
    /// follower knows; an anchor of another one may have expired for it.
    [[nodiscard]] platform::Result<ChangePage> changes(const Anchor& since) const;

    /// For poll: readable when wait() has something to look at, also where wait() then answers
    /// false.
    [[nodiscard]] int descriptor() const { return inbox_.descriptor(); }

  private:
    Following(ExtensionSession& session, std::shared_ptr<SignalBoard> board, std::string container,
              std::shared_ptr<void> everywhere);
    [[nodiscard]] platform::Result<void> startWatch();
    [[nodiscard]] bool hasMoved();

    // Constant after construction.
    ExtensionSession& session_;
    std::string container_;
    std::shared_ptr<SignalBoard> board_;
    std::shared_ptr<void> everywhere_;

    SignalBoard::Inbox inbox_;  // its own synchronisation
    // Used by the one thread.
    std::optional<std::string> place_;                 // native path; none for what is no folder
    std::shared_ptr<void> watch_;                      // null if everywhere_ watches
    std::shared_ptr<ExtensionSession::Lease> source_;  // of a wide container
};

}  // namespace host

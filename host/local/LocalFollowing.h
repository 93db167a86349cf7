#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "host/local/ExtensionSession.h"
#include "host/local/SignalBoard.h"
#include "host/session/Following.h"

namespace host {

/// Follows a container of an extension in this process.
class LocalFollowing final : public Following {
  public:
    /// `everywhere` keeps all directories watched, so that folders that move are noticed. All must
    /// outlive the following, or are kept by it.
    [[nodiscard]] static platform::Result<std::unique_ptr<Following>> begin(
        const ExtensionSession& session, std::shared_ptr<SignalBoard> board,
        const std::string& container, std::shared_ptr<void> everywhere);

    [[nodiscard]] bool wait(std::chrono::milliseconds deadline) override;
    [[nodiscard]] platform::Result<ChangePage> changes(const Anchor& since) const override;
    [[nodiscard]] int descriptor() const override { return inbox_.descriptor(); }

  private:
    LocalFollowing(const ExtensionSession& session, std::shared_ptr<SignalBoard> board,
                   std::string container, std::shared_ptr<void> everywhere);
    [[nodiscard]] platform::Result<void> startWatch();
    [[nodiscard]] bool hasMoved();

    // Constant after construction.
    const ExtensionSession& session_;
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

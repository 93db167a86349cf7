#pragma once

#include <memory>
#include <string>

#include "host/service/Supervisor.h"
#include "host/session/Following.h"

namespace host {

/// One who follows a container through one extension after another. The end of an extension and the
/// start of the next each count as signalled, so that nothing falls in between.
class SupervisedFollowing final : public Following {
  public:
    /// `supervisor` must outlive it.
    [[nodiscard]] static platform::Result<std::unique_ptr<Following>> begin(
        Supervisor& supervisor, const std::string& container);
    ~SupervisedFollowing() override;
    SupervisedFollowing(const SupervisedFollowing&) = delete;
    SupervisedFollowing& operator=(const SupervisedFollowing&) = delete;

    [[nodiscard]] bool wait(std::chrono::milliseconds deadline) override;
    /// Of an extension that has ended, the next one answers, as one that the follower has not asked
    /// before.
    [[nodiscard]] platform::Result<ChangePage> changes(const Anchor& since) const override;
    [[nodiscard]] int descriptor() const override { return either_.get(); }

  private:
    SupervisedFollowing(Supervisor& supervisor, std::string container,
                        platform::FileDescriptor either, platform::FileDescriptor restarted);
    [[nodiscard]] platform::Result<void> follow();

    Supervisor& supervisor_;
    const std::string container_;
    const platform::FileDescriptor either_;     ///< readable when one of the two below is
    const platform::FileDescriptor restarted_;  ///< an event descriptor of the supervisor's
    Supervisor::SessionRef session_;
    std::unique_ptr<Following> following_;  ///< in that session
};

}  // namespace host

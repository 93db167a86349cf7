#pragma once

#include <chrono>

#include "host/session/Page.h"

namespace host {

/// One who follows a container: the extension watches it until the handle goes. A signal says
/// only that something may have happened; the changes since the last anchor say what.
///
/// The extension watches a folder at the place where it was. So a folder that was moved, or that is
/// below one that was, is watched anew at its new place and counts as signalled.
///
/// One thread at a time; must not outlive its session.
class Following {
  public:
    virtual ~Following() = default;

    /// Blocks until the container has been signalled since the last call (the first time: since the
    /// beginning), up to the deadline. False where it has not.
    [[nodiscard]] virtual bool wait(std::chrono::milliseconds deadline) = 0;

    /// One page of what happened to the container after the anchor. The three wide containers are
    /// asked through one enumerator as long as this lives, so that it knows which app libraries the
    /// follower knows; an anchor of another one may have expired for it.
    [[nodiscard]] virtual platform::Result<ChangePage> changes(const Anchor& since) const = 0;

    /// For poll: readable when wait() has something to look at, also where wait() then answers
    /// false.
    [[nodiscard]] virtual int descriptor() const = 0;
};

}  // namespace host

#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>

namespace platform {

/// Reports that something happened in one of a set of folders, now or once they are made. Where the
/// kernel takes no watch (at a limit, or a folder that may not be read) it just says so now and
/// then. Any thread.
class FolderWatcher {
  public:
    struct Times {
        std::chrono::milliseconds rest;             ///< without events, before it is reported
        std::chrono::milliseconds most;             ///< of waiting for that rest
        std::chrono::milliseconds period;           ///< between calls without any events
        std::chrono::milliseconds unwatchedPeriod;  ///< the same where watches are missing
    };
    FolderWatcher(Times times, std::size_t mostWatches);
    ~FolderWatcher();

    /// Begins to call `changed` on a thread of its own, at once for the first time. Once only.
    void start(std::function<void()> changed);
    /// Returns when the thread has ended. REQUIRES: not called by `changed`.
    void stop();

    /// Names the whole set, between the two; `changed` does that. Watched from add() on.
    void begin();
    void add(const std::string& folder);
    void end();

    /// Whether everything of the set has its watch.
    [[nodiscard]] bool isWhole() const;

  private:
    struct Watch {
        bool isWhole = false;         ///< all that happens in it counts
        std::set<std::string> names;  ///< else what happens to these
        std::uint64_t round = 0;
    };

    void run();
    /// False at the end of the time without any events.
    [[nodiscard]] bool waitFor(std::chrono::milliseconds time);
    [[nodiscard]] bool popEvents();
    void addAncestor(const std::string& folder);
    [[nodiscard]] int addWatch(const std::string& folder);

    // Constant after construction, start() aside.
    const Times times_;
    const std::size_t mostWatches_;
    std::function<void()> changed_;
    int inotify_;  ///< -1 where there is none to be had
    int wake_;     ///< readable once it is stopped
    std::thread thread_;

    mutable std::mutex mutex_;
    // Guarded by mutex_.
    std::map<int, Watch> watches_;
    std::uint64_t round_ = 0;
    bool isMissingSome_ = false;
};

}  // namespace platform

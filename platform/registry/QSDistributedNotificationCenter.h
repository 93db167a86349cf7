#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

/// Notifications by name, across whatever posts them. An observer is known by an address that the
/// centre never looks behind. Any thread.
class QSDistributedNotificationCenter {
  public:
    /// Called on the posting thread; calls of one observation wait for one another, and the centre
    /// itself is not locked. The observer's address is handed back.
    using Callback = std::function<void(const void* observer)>;

    /// REQUIRES: `observer` stays valid until it was removed.
    void addObserver(const void* observer, std::string name, Callback callback);
    /// No callback of `observer` begins after this has returned; one that runs is waited for,
    /// unless it is the caller. REQUIRES: no two observers remove one another from callbacks that
    /// may run at the same time; each would wait for the other.
    void removeEveryObserver(const void* observer);
    /// Calls the observers of `name` that are registered now, and returns when all have been.
    void post(std::string_view name);

  private:
    struct Observation {
        const void* observer;
        std::string name;
        Callback callback;
        std::recursive_mutex running;
        bool isRemoved = false;  // guarded by running
    };

    std::mutex mutex_;
    std::vector<std::shared_ptr<Observation>> observations_;  // guarded by mutex_
};

}  // namespace platform

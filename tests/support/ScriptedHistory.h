#pragma once

#include <cerrno>
#include <map>
#include <mutex>

#include "platform/volume/EventHistory.h"

namespace tests {

/// A history that holds what a test puts into it.
class ScriptedHistory final : public platform::EventHistory {
  public:
    std::uint64_t currentEventID() const override {
        const std::scoped_lock lock(mutex_);
        return current_;
    }
    bool isCaughtUp() const override {
        const std::scoped_lock lock(mutex_);
        return isCaughtUp_;
    }
    platform::Result<std::vector<platform::FSEvent>> selectedEventsAfter(
        std::uint64_t after, std::uint64_t upTo, std::size_t limit,
        platform::EventSelection /*selection*/) const override {
        const std::scoped_lock lock(mutex_);
        ++reads_;
        if (after < oldest_ || after > current_) {
            return std::unexpected(platform::errorFromErrno(ESTALE));
        }
        std::vector<platform::FSEvent> found;
        for (const auto& event : events_) {
            if (event.id > after && event.id <= upTo && found.size() < limit) {
                found.push_back(event);
            }
        }
        return found;
    }
    std::shared_ptr<void> subscribe(Listener listener) override {
        const std::scoped_lock lock(subscribers_->mutex);
        const auto number = subscribers_->next++;
        subscribers_->all[number] = std::move(listener);
        // Handles may go after the history.
        return {nullptr, [number, subscribers = subscribers_](void*) {
                    const std::scoped_lock unsubscribing(subscribers->mutex);
                    subscribers->all.erase(number);
                }};
    }

    std::uint64_t append(platform::FSEvent event) {
        {
            const std::scoped_lock lock(mutex_);
            event.id = ++current_;
            events_.push_back(std::move(event));
        }
        notify();
        return currentEventID();
    }
    /// Forgets what happened up to the ID.
    void expire(std::uint64_t upTo) {
        const std::scoped_lock lock(mutex_);
        oldest_ = upTo;
    }
    void setCaughtUp(bool isCaughtUp) {
        {
            const std::scoped_lock lock(mutex_);
            isCaughtUp_ = isCaughtUp;
        }
        notify();
    }
    void notify() {
        const std::scoped_lock lock(subscribers_->mutex);
        for (const auto& [number, listener] : subscribers_->all) listener({});
    }
    std::uint64_t reads() const {
        const std::scoped_lock lock(mutex_);
        return reads_;
    }
    std::size_t subscriberCount() const {
        const std::scoped_lock lock(subscribers_->mutex);
        return subscribers_->all.size();
    }

  private:
    struct Subscribers {
        std::mutex mutex;
        // Guarded by mutex, which stays locked while they are called.
        std::map<int, Listener> all;
        int next = 0;
    };

    const std::shared_ptr<Subscribers> subscribers_ = std::make_shared<Subscribers>();

    mutable std::mutex mutex_;
    // Guarded by mutex_.
    std::vector<platform::FSEvent> events_;
    std::uint64_t current_ = 1000;
    std::uint64_t oldest_ = 1000;
    bool isCaughtUp_ = true;
    mutable std::uint64_t reads_ = 0;
};

}  // namespace tests

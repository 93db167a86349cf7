#include "platform/registry/QSDistributedNotificationCenter.h"

namespace platform {

void QSDistributedNotificationCenter::addObserver(const void* observer, std::string name,
                                                  Callback callback) {
    auto observation = std::make_shared<Observation>();
    observation->observer = observer;
    observation->name = std::move(name);
    observation->callback = std::move(callback);
    const std::scoped_lock lock(mutex_);
    observations_.push_back(std::move(observation));
}

void QSDistributedNotificationCenter::removeEveryObserver(const void* observer) {
    std::vector<std::shared_ptr<Observation>> removed;
    {
        const std::scoped_lock lock(mutex_);
        std::erase_if(observations_, [&](const std::shared_ptr<Observation>& candidate) {
            if (candidate->observer != observer) return false;
            removed.push_back(candidate);
            return true;
        });
    }
    for (const auto& observation : removed) {
        const std::scoped_lock lock(observation->running);
        observation->isRemoved = true;
    }
}

void QSDistributedNotificationCenter::post(std::string_view name) {
    std::vector<std::shared_ptr<Observation>> receivers;
    {
        const std::scoped_lock lock(mutex_);
        for (const auto& observation : observations_) {
            if (observation->name == name) receivers.push_back(observation);
        }
    }
    for (const auto& receiver : receivers) {
        const std::scoped_lock lock(receiver->running);
        if (!receiver->isRemoved) receiver->callback(receiver->observer);
    }
}

}  // namespace platform

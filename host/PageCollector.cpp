#include "host/PageCollector.h"

#include <cerrno>
#include <iterator>

namespace host {

void PageCollector::didEnumerateItems(std::vector<platform::ItemRef> items) {
    const std::scoped_lock lock(mutex_);
    if (outcome_) return;
    items_.insert(items_.end(), std::move_iterator(items.begin()), std::move_iterator(items.end()));
}

void PageCollector::finishEnumeratingUpToPage(
    std::optional<platform::QSFileProviderPage> nextPage) {
    finish(std::move(nextPage));
}

void PageCollector::finishEnumeratingWithError(platform::QSError error) {
    finish(std::unexpected(std::move(error)));
}

void PageCollector::finish(Outcome outcome) {
    const std::scoped_lock lock(mutex_);
    if (outcome_) return;
    outcome_ = std::move(outcome);
    finished_.notify_all();
}

std::pair<std::vector<platform::ItemRef>, PageCollector::Outcome> PageCollector::wait(
    std::chrono::milliseconds deadline) {
    std::unique_lock lock(mutex_);
    if (!finished_.wait_for(lock, deadline, [this] { return outcome_.has_value(); })) {
        outcome_ = std::unexpected(platform::errorFromErrno(ETIMEDOUT));
    }
    return {std::move(items_), *outcome_};
}

}  // namespace host

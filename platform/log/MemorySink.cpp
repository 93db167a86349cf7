#include <mutex>

#include "platform/log/Log.h"

namespace platform {

struct MemorySink::State {
    std::mutex mutex;
    std::vector<LogRecord> records;  // guarded by mutex
};

MemorySink::MemorySink() : state_(std::make_unique<State>()) {}

MemorySink::~MemorySink() = default;

void MemorySink::write(const LogRecord& record) {
    const std::scoped_lock lock(state_->mutex);
    state_->records.push_back(record);
}

std::vector<LogRecord> MemorySink::records() const {
    const std::scoped_lock lock(state_->mutex);
    return state_->records;
}

void MemorySink::clear() {
    const std::scoped_lock lock(state_->mutex);
    state_->records.clear();
}

}  // namespace platform

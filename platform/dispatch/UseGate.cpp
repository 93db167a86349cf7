#include "platform/dispatch/UseGate.h"

namespace platform {

UseGate::Pass UseGate::enter() {
    const std::scoped_lock lock(mutex_);
    if (isClosed_) return nullptr;
    ++inside_;
    return Pass(this);
}

void UseGate::leave() {
    const std::scoped_lock lock(mutex_);
    if (--inside_ == 0) empty_.notify_all();
}

void UseGate::close() {
    std::unique_lock lock(mutex_);
    isClosed_ = true;
    empty_.wait(lock, [&] { return inside_ == 0; });
}

}  // namespace platform

#include "cli/Progress.h"

#include <cstdio>

namespace cli {

namespace {

constexpr std::string_view eraseLine = "\r\033[K";

void writeToTerminal(std::string_view text) {
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
}

}  // namespace

void Progress::update(std::string_view text) {
    const std::scoped_lock lock(mutex_);
    const auto now = Clock::now();
    if (!isOn_ || now < next_) return;
    next_ = now + std::chrono::milliseconds(100);
    isDrawn_ = true;
    writeToTerminal(eraseLine);
    writeToTerminal(text);
}

void Progress::end() {
    const std::scoped_lock lock(mutex_);
    if (isDrawn_) writeToTerminal(eraseLine);
    isDrawn_ = false;
    isOn_ = false;
}

}  // namespace cli

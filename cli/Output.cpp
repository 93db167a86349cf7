#include "cli/Output.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string_view>

#include "cli/Progress.h"

namespace cli {

namespace {

constexpr std::size_t enoughToWrite = 64 * 1024;
constexpr std::chrono::milliseconds longEnough{20};

bool wantsColor() {
    const char* no = std::getenv("NO_COLOR");
    const char* term = std::getenv("TERM");
    return !(no && *no) && term && std::string_view(term) != "dumb";
}

}  // namespace

Output::Output(int fd, Progress& progress) : fd_(fd), progress_(progress) {
    style_.isTerminal = isatty(fd) == 1;
    style_.hasColor = style_.isTerminal && wantsColor();
}

bool Output::pace() {
    if (text_.size() >= enoughToWrite || Clock::now() - written_ >= longEnough) write();
    return failure_ == 0;
}

bool Output::flush() {
    write();
    return failure_ == 0;
}

platform::Result<void> Output::finish() {
    write();
    if (failure_ == 0 || failure_ == EPIPE) return {};
    return std::unexpected(platform::errorFromErrno(failure_, "standard output"));
}

void Output::write() {
    // Both may be the same terminal.
    if (style_.isTerminal && !text_.empty()) progress_.end();
    for (std::string_view rest = text_; !rest.empty() && failure_ == 0;) {
        const auto count = ::write(fd_, rest.data(), rest.size());
        if (count >= 0) {
            rest.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno != EINTR) {
            failure_ = errno;
        }
    }
    text_.clear();
    written_ = Clock::now();
}

}  // namespace cli

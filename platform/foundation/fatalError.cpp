#include "platform/foundation/fatalError.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace platform {

namespace {

void reportToStandardError(std::string_view message, const std::source_location& location) {
    std::fprintf(stderr, "fatal error: %.*s (%s:%u)\n", static_cast<int>(message.size()),
                 message.data(), location.file_name(), static_cast<unsigned>(location.line()));
}

std::atomic<FatalErrorHook> installedHook = reportToStandardError;

}  // namespace

void fatalError(std::string_view message, std::source_location location) {
    installedHook.load()(message, location);
    std::abort();
}

void setFatalErrorHook(FatalErrorHook hook) {
    installedHook = hook;
}

}  // namespace platform

#include "platform/log/Log.h"

#include <fmt/format.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "platform/foundation/fatalError.h"

namespace platform {

namespace {

constexpr std::uint8_t noLevel = 255;

std::atomic<std::uint8_t> lowestLevel = noLevel;

struct Installed {
    std::mutex mutex;
    std::shared_ptr<LogSink> sink;  // guarded by mutex
};

/// Never destroyed: worker threads may log until the process ends.
Installed& installed() {
    static Installed* const value = new Installed;
    return *value;
}

std::shared_ptr<LogSink> currentSink() {
    Installed& all = installed();
    const std::scoped_lock lock(all.mutex);
    return all.sink;
}

void logFatalError(std::string_view message, const std::source_location& location) {
    static std::atomic_flag isFailing;
    const std::string text =
        fmt::format("fatal error: {} ({}:{})", message, location.file_name(), location.line());
    // A sink that fails itself must not come back here without end.
    if (Log::isOn(LogLevel::Error) && !isFailing.test_and_set()) {
        Log::platformLog().write(LogLevel::Error, text);
    } else {
        std::fprintf(stderr, "%s\n", text.c_str());
    }
}

}  // namespace

Log::ErrnoKeeper::ErrnoKeeper() : saved(errno) {}

Log::ErrnoKeeper::~ErrnoKeeper() {
    errno = saved;
}

Log::Log(std::string subsystem, std::string category)
    : subsystem_(std::move(subsystem)), category_(std::move(category)) {}

const Log& Log::platformLog() {
    static const Log* const log = new Log("com.quenby.platform", "platform");
    return *log;
}

bool Log::isOn(LogLevel level) {
    return static_cast<std::uint8_t>(level) >= lowestLevel.load(std::memory_order_relaxed);
}

void Log::write(LogLevel level, std::string_view message) const {
    if (!isOn(level)) return;
    const ErrnoKeeper keeper;
    if (const auto sink = currentSink()) {
        sink->write({subsystem_, category_, level, std::string(message)});
    }
}

void installLog(std::shared_ptr<LogSink> sink, LogLevel lowest) {
    lowestLevel = sink ? static_cast<std::uint8_t>(lowest) : noLevel;
    {
        Installed& all = installed();
        const std::scoped_lock lock(all.mutex);
        all.sink.swap(sink);
    }
    setFatalErrorHook(logFatalError);
}

std::string errnoText(int errnoValue) {
    const char* const text = strerrordesc_np(errnoValue);
    return fmt::format("[{}: {}]", errnoValue, text ? text : "Unknown error");
}

}  // namespace platform

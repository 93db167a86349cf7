// Without this each record would name the line of the call below as its own.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "platform/log/Log.h"

namespace platform {

namespace {

int priority(LogLevel level) {
    switch (level) {
        case LogLevel::Error:
            return 3;
        case LogLevel::Info:
            return 6;
        case LogLevel::Debug:
            break;
    }
    return 7;
}

class JournalSink final : public LogSink {
  public:
    void write(const LogRecord& record) override {
        std::array fields{
            fmt::format("MESSAGE={}", record.message),
            fmt::format("PRIORITY={}", priority(record.level)),
            fmt::format("SYSLOG_IDENTIFIER={}", program_invocation_short_name),
            fmt::format("TIDEWELL_SUBSYSTEM={}", record.subsystem),
            fmt::format("TIDEWELL_CATEGORY={}", record.category),
            fmt::format("TID={}", ::gettid()),
        };
        std::array<iovec, std::tuple_size_v<decltype(fields)>> parts;
        for (std::size_t i = 0; i < fields.size(); ++i) {
            parts[i] = {fields[i].data(), fields[i].size()};
        }
        sd_journal_sendv(parts.data(), static_cast<int>(parts.size()));
    }
};

}  // namespace

std::shared_ptr<LogSink> makeJournalSink() {
    struct stat status;
    if (::stat("/run/systemd/journal/socket", &status) != 0 || !S_ISSOCK(status.st_mode)) {
        return nullptr;
    }
    return std::make_shared<JournalSink>();
}

}  // namespace platform

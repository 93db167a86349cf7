#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <iterator>

#include "platform/foundation/QSDate.h"
#include "platform/log/Log.h"

namespace platform {

namespace {

/// Whether standard error still is the stream that the service manager connected to the journal.
bool isReadByJournal() {
    const char* const stream = std::getenv("JOURNAL_STREAM");
    struct stat status;
    return stream && ::fstat(STDERR_FILENO, &status) == 0 &&
           stream == fmt::format("{}:{}", status.st_dev, status.st_ino);
}

std::string_view journalPrefix(LogLevel level) {
    switch (level) {
        case LogLevel::Error:
            return "<3>";
        case LogLevel::Info:
            return "<6>";
        case LogLevel::Debug:
            break;
    }
    return "<7>";
}

/// File names end up in messages: neither a line break nor a terminal's control sequence may pass.
void appendEscaped(fmt::memory_buffer& line, std::string_view text) {
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if ((byte < 0x20 && c != '\t') || byte == 0x7f) {
            fmt::format_to(std::back_inserter(line), "\\x{:02x}", byte);
        } else {
            line.push_back(c);
        }
    }
}

class StandardErrorSink final : public LogSink {
  public:
    void write(const LogRecord& record) override {
        fmt::memory_buffer line;
        auto end = std::back_inserter(line);
        if (isReadByJournal_) {
            fmt::format_to(end, "{}", journalPrefix(record.level));
        } else {
            fmt::format_to(end, "{} ", QSDate::now().rfc3339());
        }
        fmt::format_to(end, "{}/{}: ", record.subsystem, record.category);
        appendEscaped(line, record.message);
        line.push_back('\n');
        // One call a line keeps the lines of threads apart.
        std::string_view rest(line.data(), line.size());
        while (!rest.empty()) {
            const ssize_t written = ::write(STDERR_FILENO, rest.data(), rest.size());
            if (written < 0 && errno == EINTR) continue;
            if (written <= 0) return;  // nowhere left to say so
            rest.remove_prefix(static_cast<std::size_t>(written));
        }
    }

  private:
    const bool isReadByJournal_ = isReadByJournal();
};

}  // namespace

std::shared_ptr<LogSink> makeStandardErrorSink() {
    return std::make_shared<StandardErrorSink>();
}

}  // namespace platform

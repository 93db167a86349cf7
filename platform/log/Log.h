#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

enum class LogLevel : std::uint8_t { Debug, Info, Error };

/// One record. `message` is final text; "%" in it means nothing.
struct LogRecord {
    std::string subsystem;
    std::string category;
    LogLevel level = LogLevel::Debug;
    std::string message;
};

/// Where records go. Called from any thread, one call at a time or several; must not block for long
/// and must not log.
class LogSink {
  public:
    virtual ~LogSink() = default;
    virtual void write(const LogRecord& record) = 0;
};

/// Journald's native socket (fields MESSAGE, PRIORITY, SYSLOG_IDENTIFIER, TIDEWELL_SUBSYSTEM,
/// TIDEWELL_CATEGORY, TID). Null where no journal listens.
[[nodiscard]] std::shared_ptr<LogSink> makeJournalSink();

/// One line a record on standard error, with "<3>"-style prefixes where JOURNAL_STREAM says that
/// the journal reads it.
[[nodiscard]] std::shared_ptr<LogSink> makeStandardErrorSink();

/// Keeps records for tests.
class MemorySink final : public LogSink {
  public:
    MemorySink();
    ~MemorySink() override;
    void write(const LogRecord& record) override;
    [[nodiscard]] std::vector<LogRecord> records() const;
    void clear();

  private:
    struct State;
    std::unique_ptr<State> state_;
};

/// A handle for one subsystem and category. Safe from any thread; keeps errno.
class Log {
  public:
    Log(std::string subsystem, std::string category);

    /// The one to use for work on the platform itself (subsystem "com.quenby.platform").
    [[nodiscard]] static const Log& platformLog();

    [[nodiscard]] static bool isOn(LogLevel level);
    void write(LogLevel level, std::string_view message) const;

    /// `text` is called for its string only where the level is on.
    template <typename Text>
    void write(LogLevel level, Text&& text) const requires requires {
        std::string_view(text());
    }
    {
        if (!isOn(level)) return;
        const ErrnoKeeper keeper;
        write(level, std::string_view(std::string(text())));
    }

  private:
    struct ErrnoKeeper {
        ErrnoKeeper();
        ~ErrnoKeeper();
        int saved;
    };

    std::string subsystem_;
    std::string category_;
};

/// Sets the sink and the lowest level that is on, for the whole process. A null sink turns logging
/// off. Also makes fatalError log through it.
void installLog(std::shared_ptr<LogSink> sink, LogLevel lowest);

/// The text of an errno value as logs show it: "[2: No such file or directory]".
[[nodiscard]] std::string errnoText(int errnoValue);

}  // namespace platform

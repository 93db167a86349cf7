#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "platform/log/Log.h"

namespace tidewell {

using namespace platform;

/// The extension's one log handle. Text given as a callable is built only where the level is on.
[[nodiscard]] const Log& logHandle();

/// A record with the level's prefix, "[ERROR] " and so on. `text` is a string or a callable that
/// yields one.
template <typename Text>
void logWithPrefix(LogLevel level, std::string_view prefix, Text&& text) {
    logHandle().write(level, [&] {
        std::string message(prefix);
        if constexpr (requires { std::string_view(text); }) {
            message += std::string_view(text);
        } else {
            message += text();
        }
        return message;
    });
}
template <typename Text>
void logError(Text&& text) {
    logWithPrefix(LogLevel::Error, "[ERROR] ", std::forward<Text>(text));
}
template <typename Text>
void logInfo(Text&& text) {
    logWithPrefix(LogLevel::Info, "[INFO] ", std::forward<Text>(text));
}
template <typename Text>
void logDebug(Text&& text) {
    logWithPrefix(LogLevel::Debug, "[DEBUG] ", std::forward<Text>(text));
}

/// One numbered operation in the log: an opening line when made, a closing one when it ends.
/// Sections of different threads interleave; only the number ties the two lines together.
class LogSection {
  public:
    template <typename Title>
    explicit LogSection(Title&& title) : number_(nextNumber()) {
        logDebug([&] {
            std::string line = "┏" + std::to_string(number_) + " ";
            if constexpr (requires { std::string_view(title); }) {
                line += std::string_view(title);
            } else {
                line += title();
            }
            return line;
        });
    }
    ~LogSection();
    LogSection(const LogSection&) = delete;
    LogSection& operator=(const LogSection&) = delete;

    [[nodiscard]] std::uint64_t number() const { return number_; }

  private:
    static std::uint64_t nextNumber();

    std::uint64_t number_;
};

/// Files a crash report for a situation that must never happen; the process goes on.
void reportSimulatedCrash(std::string_view message);

/// `text` between double quotes.
[[nodiscard]] std::string quoted(std::string_view text);

}  // namespace tidewell

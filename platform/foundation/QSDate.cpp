#include "platform/foundation/QSDate.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>

namespace platform {

namespace {

constexpr std::int64_t referenceDate = 978'307'200;    // 2001-01-01 in Unix time
constexpr std::int64_t firstSecond = -62'167'219'200;  // 0000-01-01
constexpr std::int64_t lastSecond = 253'402'300'799;   // 9999-12-31T23:59:59

/// Takes text from the front, piece by piece.
class Scanner {
  public:
    explicit Scanner(std::string_view text) : rest_(text) {}

    [[nodiscard]] bool isAtEnd() const { return rest_.empty(); }

    /// One of the characters, which is taken; 0 where none of them comes next.
    char oneOf(std::string_view characters) {
        if (rest_.empty() || characters.find(rest_.front()) == std::string_view::npos) return 0;
        const char found = rest_.front();
        rest_.remove_prefix(1);
        return found;
    }
    /// A number of exactly that many digits, from 0 to `last`; nothing for anything else.
    std::optional<unsigned> number(std::size_t digits, unsigned last) {
        if (rest_.size() < digits) return std::nullopt;
        unsigned value = 0;
        for (const char digit : rest_.substr(0, digits)) {
            if (digit < '0' || digit > '9') return std::nullopt;
            value = value * 10 + static_cast<unsigned>(digit - '0');
        }
        rest_.remove_prefix(digits);
        return value <= last ? std::optional(value) : std::nullopt;
    }
    /// The digits of a fraction as nanoseconds; nothing where none comes.
    std::optional<std::uint32_t> fraction() {
        std::optional<std::uint32_t> value;
        std::uint32_t unit = 100'000'000;
        while (const char digit = oneOf("0123456789")) {
            value = value.value_or(0) + unit * static_cast<std::uint32_t>(digit - '0');
            unit /= 10;
        }
        return value;
    }
    /// "12:30" as seconds.
    std::optional<std::int64_t> hoursAndMinutes() {
        const auto hours = number(2, 23);
        const bool isParted = oneOf(":") != 0;
        const auto minutes = number(2, 59);
        if (!hours || !isParted || !minutes) return std::nullopt;
        return (std::int64_t{*hours} * 60 + *minutes) * 60;
    }

  private:
    std::string_view rest_;
};

/// "2026-01-31" as seconds since the epoch.
std::optional<std::int64_t> parseDay(Scanner& scanner) {
    using namespace std::chrono;
    const auto y = scanner.number(4, 9999);
    const bool isParted = scanner.oneOf("-") != 0;
    const auto m = scanner.number(2, 12);
    const bool isPartedAgain = scanner.oneOf("-") != 0;
    const auto d = scanner.number(2, 31);
    if (!y || !isParted || !m || !isPartedAgain || !d) return std::nullopt;
    const year_month_day day{year(static_cast<int>(*y)), month(*m), std::chrono::day(*d)};
    if (!day.ok()) return std::nullopt;
    return duration_cast<std::chrono::seconds>(sys_days(day).time_since_epoch()).count();
}

/// "Z" or "+01:00" as seconds that the text is ahead of UTC.
std::optional<std::int64_t> parseOffset(Scanner& scanner) {
    if (scanner.oneOf("Zz") != 0) return 0;
    const char sign = scanner.oneOf("+-");
    const auto offset = scanner.hoursAndMinutes();
    if (sign == 0 || !offset) return std::nullopt;
    return sign == '-' ? -*offset : *offset;
}

}  // namespace

QSDate QSDate::now() {
    const auto since = std::chrono::system_clock::now().time_since_epoch();
    const auto whole = std::chrono::floor<std::chrono::seconds>(since);
    return {whole.count(),
            static_cast<std::uint32_t>((since - whole) / std::chrono::nanoseconds(1))};
}

double QSDate::timeIntervalSinceReferenceDate() const {
    // In doubles: some file systems store any 64-bit number of seconds.
    return static_cast<double>(seconds) - static_cast<double>(referenceDate) +
           static_cast<double>(nanoseconds) / 1e9;
}

QSDate QSDate::dateWithTimeIntervalSinceReferenceDate(double interval) {
    const double whole =
        std::clamp(std::floor(interval), static_cast<double>(firstSecond - referenceDate),
                   static_cast<double>(lastSecond - referenceDate));
    const double fraction = std::clamp(interval - whole, 0.0, 0.999'999'999);
    return {static_cast<std::int64_t>(whole) + referenceDate,
            static_cast<std::uint32_t>(std::lround(fraction * 1e9))};
}

std::optional<QSDate> QSDate::dateFromRFC3339(std::string_view text) {
    Scanner scanner(text);
    const auto day = parseDay(scanner);
    if (!day || scanner.oneOf("Tt ") == 0) return std::nullopt;
    const auto minutes = scanner.hoursAndMinutes();
    if (!minutes || scanner.oneOf(":") == 0) return std::nullopt;
    const auto seconds = scanner.number(2, 59);
    const bool hasFraction = scanner.oneOf(".") != 0;
    const auto nanoseconds = hasFraction ? scanner.fraction() : 0;
    const auto offset = parseOffset(scanner);
    if (!seconds || !nanoseconds || !offset || !scanner.isAtEnd()) return std::nullopt;
    return QSDate{*day + *minutes + *seconds - *offset, *nanoseconds};
}

std::string QSDate::rfc3339() const {
    using namespace std::chrono;
    const sys_seconds point{std::chrono::seconds(std::clamp(seconds, firstSecond, lastSecond))};
    const auto day = floor<days>(point);
    const year_month_day date{day};
    const hh_mm_ss time{point - day};
    char text[48];
    std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02d.%09uZ",
                  static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                  static_cast<unsigned>(date.day()), static_cast<int>(time.hours().count()),
                  static_cast<int>(time.minutes().count()),
                  static_cast<int>(time.seconds().count()), nanoseconds);
    return text;
}

}  // namespace platform

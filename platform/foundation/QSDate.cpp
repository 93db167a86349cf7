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

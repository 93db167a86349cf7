#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

/// A point in time with nanosecond resolution, counted from the Unix epoch in UTC.
struct QSDate {
    std::int64_t seconds = 0;
    std::uint32_t nanoseconds = 0;  ///< 0 to 999,999,999, also before the epoch

    [[nodiscard]] static QSDate now();

    /// Seconds since 2001-01-01 00:00 UTC, as keyed archives and property lists store dates. The
    /// double keeps about 100 ns for dates of this century.
    [[nodiscard]] double timeIntervalSinceReferenceDate() const;

    /// REQUIRES: `interval` is finite. Beyond the years that RFC 3339 can write the value
    /// saturates.
    [[nodiscard]] static QSDate dateWithTimeIntervalSinceReferenceDate(double interval);

    /// RFC 3339 in UTC with nine fraction digits: "2026-01-31T09:15:00.000000000Z".
    [[nodiscard]] std::string rfc3339() const;

    /// The way back, from any form that RFC 3339 allows ("2026-01-31T10:15:00+01:00"; "t", "z" and
    /// a blank between date and time too). Digits beyond nanoseconds are dropped. Nothing for any
    /// other text, a day that does not exist or a leap second.
    [[nodiscard]] static std::optional<QSDate> dateFromRFC3339(std::string_view text);

    friend auto operator<=>(const QSDate&, const QSDate&) = default;
};

}  // namespace platform

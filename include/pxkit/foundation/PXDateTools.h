// PXKit — date tools: interval splitting and wording, locale formatting, web timestamps.
//
// PXDateTools groups the kit's operations on time intervals and dates:
//   - splitTimeInterval cuts an interval into calendar-free units (a year is
//     always 365 days, a day 86400 seconds);
//   - stringFromTimeInterval writes an interval in the user's language from the
//     kit's "Localizable" table ("2 days 3 hours", "2 Tage 3 Stunden");
//   - localizedStringFormattedWithDateStyle formats a date in the user's locale
//     and time zone;
//   - dateFromISO8601DateString / dateFromRFC3339DateString read the two
//     timestamp forms web services send.
//
//   int days = 0, hours = 0;
//   PXDateTools::splitTimeInterval(90061, nullptr, &days, &hours, nullptr, nullptr);  // 1, 1
//   PXString text = PXDateTools::stringFromTimeInterval(7200, false, false, true, true, false,
//                                                       /*omitUnused=*/true);        // "2 hours"
//   std::optional<PXDate> d = PXDateTools::dateFromRFC3339DateString("2012-05-01T10:20:30+02:00");
//
// Thread safety: every operation may be called from any thread.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXDate.h>
#include <pxkit/objects/PXString.h>

#include <cstddef>
#include <optional>
#include <string_view>

// The styles of a locale's date and time formats, shortest to longest.
enum PXDateFormatterStyle : int {
  PXDateFormatterNoStyle = 0,      // leave this part out
  PXDateFormatterShortStyle = 1,   // "5/1/12", "10:20 AM"
  PXDateFormatterMediumStyle = 2,  // "May 1, 2012", "10:20:30 AM"
  PXDateFormatterLongStyle = 3,    // "May 1, 2012", "10:20:30 AM UTC"
  PXDateFormatterFullStyle = 4,    // "Tuesday, May 1, 2012", "10:20:30 AM Coordinated Universal Time"
};

namespace PXDateTools {

// Fixed unit lengths in seconds: no calendar, no leap handling.
inline constexpr double kPXSecondsPerYear = 31536000.0;  // 365 days
inline constexpr double kPXSecondsPerDay = 86400.0;
inline constexpr double kPXSecondsPerHour = 3600.0;
inline constexpr double kPXSecondsPerMinute = 60.0;

// The longest timestamp the parsers read, in bytes; longer strings give an
// absent date (real ones are under 40 bytes).
inline constexpr size_t kPXMaxTimestampLength = 64;

// Splits `timeInterval` (seconds) into whole years, days, hours, minutes and
// seconds. Each output is optional (null: not wanted); a unit that is not wanted
// is not split off, its amount stays in the next smaller wanted unit (no years
// wanted: 400 days come out as 400 days). The seconds output takes what is left,
// floored.
//
// `years`, `days`, `minutes` and `seconds` are set to 0 first, `hours` is NOT —
// when less than an hour remains at the hour step, `*hours` keeps whatever the
// caller put there (kept on purpose, see docs/compatibility.md).
// Negative intervals go whole into the seconds output, floored (-5.5 gives -6).
// Counts beyond the range of int saturate; NaN counts as 0.
// Pure; any thread.
PXKIT_EXPORT void splitTimeInterval(double timeInterval, int* inYears, int* days, int* hours, int* minutes,
                                    int* seconds) noexcept;

// The interval in words, in the user's preferred language, for the wanted units
// in the order year, day, hour, minute, second: "<count> <word>" per unit,
// separated by single spaces, the singular word when the count is exactly 1 and
// the plural otherwise ("1 day 0 hours", "-6 seconds").
// Without `omitUnused` every wanted unit is written, zeros included. With it,
// zero units are left out as long as some other wanted unit is non-zero; when
// every wanted unit is zero they are all written ("0 hours 0 minutes").
// No unit wanted gives "". Words come from the kit's "Localizable" table; a word
// without translation is its English key. Any thread.
PXKIT_EXPORT PXString stringFromTimeInterval(double timeInterval, bool withYears, bool days, bool hours,
                                             bool minutes, bool seconds, bool omitUnused = false);

// `date` formatted by a new formatter for the user's current locale (LC_ALL,
// LC_TIME, LANG) and time zone (TZ, else the system zone), with the given date
// and time styles. Both styles PXDateFormatterNoStyle give "". Any thread.
PXKIT_EXPORT PXString localizedStringFormattedWithDateStyle(PXDate date, PXDateFormatterStyle dateStyle,
                                                            PXDateFormatterStyle timeStyle);

// Parses an ISO 8601 timestamp with milliseconds against the pattern
// "yyyy'-'MM'-'dd'T'HH':'mm':'ss.SSSZ" (locale en_US_POSIX, strict fields), e.g.
// "2012-05-01T10:20:30.123+0200". The zone may be "+hhmm", "+hh:mm", "Z" or "GMT+hh:mm";
// without one the time is UTC. The whole string must match. Absent when it does
// not. Any thread (the shared parser is created once, on first use).
[[nodiscard]] PXKIT_EXPORT std::optional<PXDate> dateFromISO8601DateString(std::string_view string);

// Parses an RFC 3339 timestamp against "yyyy'-'MM'-'dd'T'HH':'mm':'ssZZZ"
// (en_US_POSIX, strict fields) after removing every ":" from the first "+" on —
// or, when there is no "+", from the first "-" on. The first "-" of a string
// without "+" lies in its date, so its time loses its colons too and no longer
// matches: only positive offsets parse ("2012-05-01T10:20:30+02:00"), while
// "...-07:00" and "...Z" give an absent date (kept on purpose, see
// docs/compatibility.md). Any thread.
[[nodiscard]] PXKIT_EXPORT std::optional<PXDate> dateFromRFC3339DateString(std::string_view string);

}  // namespace PXDateTools

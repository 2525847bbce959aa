// PXKit — the user's calendar: local dates in the user's time zone.
//
// The Gregorian calendar in the user's time zone: the TZ environment variable
// when set, else the system zone (/etc/localtime). The zone is read once and
// kept; PXCalendar::resetTimeZone() makes the next call read it again (the
// time-zone-change watcher calls it, and so do tests that change TZ).
//
//   PXDateComponents today = PXCalendar::components(PXDate::now());
//   if (!PXCalendar::isSameDay(start, PXDate::now())) { ... a new local day ... }
//   // 00:00:01 local time on the day after today, whatever the length of today:
//   std::optional<PXDate> fire = PXCalendar::dateOnFollowingDay(PXDate::now(), 0, 0, 1);
//
// Thread safety: every function may be called from any thread.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXDate.h>

#include <compare>
#include <optional>
#include <string>

// A local calendar date and wall-clock time. Months and days count from 1.
struct PXDateComponents {
  int year = 1;
  int month = 1;    // 1-12
  int day = 1;      // 1-31
  int hour = 0;     // 0-23
  int minute = 0;   // 0-59
  int second = 0;   // 0-59 (whole seconds; the fraction is dropped)
  int weekday = 0;  // 1 = Monday ... 7 = Sunday; ignored by dateFromComponents

  friend bool operator==(const PXDateComponents&, const PXDateComponents&) = default;
};

class PXKIT_EXPORT PXCalendar {
 public:
  PXCalendar() = delete;

  // The local calendar date and time of `date` in the user's zone.
  static PXDateComponents components(PXDate date);

  // The moment of a local date and time in the user's zone (weekday ignored;
  // out-of-range fields are normalised: month 13 is January of the next year).
  // A wall time that does not exist (skipped when clocks go forward) gives the
  // first moment after the gap, shifted by the gap: 02:30 on a day that jumps
  // from 02:00 to 03:00 gives 03:30. A wall time that occurs twice (clocks go
  // back) gives the earlier moment. Absent only when the year is outside 1-9999.
  static std::optional<PXDate> dateFromComponents(const PXDateComponents& components);

  // Whether two moments fall on the same local calendar day (year, month, day).
  static bool isSameDay(PXDate a, PXDate b);

  // The moment of local wall time hour:minute:second on the calendar day that
  // follows the local day of `date`. The next day is found in calendar terms,
  // not by adding 86400 s, so a 23-hour or 25-hour day neither skips nor repeats
  // a day. Absent when the date cannot be formed (year outside 1-9999).
  static std::optional<PXDate> dateOnFollowingDay(PXDate date, int hour, int minute, int second);

  // The zone's offset from UTC at `date`, in seconds east of UTC.
  static int secondsFromGMT(PXDate date);
  // The zone's abbreviation at `date` ("CET", "EDT"; "UTC" for UTC; a numeric
  // form such as "+0530" where the zone has none).
  static std::string timeZoneAbbreviation(PXDate date);
  // The zone's identifier ("Europe/Berlin"); "UTC" when nothing better is known.
  static std::string timeZoneName();

  // Forgets the zone read so far; the next call reads TZ and the system zone
  // again. Called by the time-zone-change watcher; cheap.
  static void resetTimeZone();
};

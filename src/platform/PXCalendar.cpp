#include <pxkit/platform/PXCalendar.h>
#include <time.h>

#include <cmath>
#include <cstdlib>
#include <mutex>
#include <string>
#include <utility>

#include "platform/internal/GLibHandles.h"

// Calendar arithmetic is done here on plain integers (days since the Unix epoch
// in the proleptic Gregorian calendar); the only question put to the zone
// database is "what is the offset from UTC at this moment", answered by GLib's
// GTimeZone for the zone named by TZ or, without TZ, the system zone.

namespace {

constexpr int64_t kSecondsPerDay = 86400;

// ---- Civil dates <-> days since 1970-01-01 (H. Hinnant's algorithms) ---------
int64_t daysFromCivil(int64_t y, int64_t m, int64_t d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const int64_t yoe = y - era * 400;
  const int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

void civilFromDays(int64_t z, int& year, int& month, int& day) {
  z += 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const int64_t doe = z - era * 146097;
  const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const int64_t mp = (5 * doy + 2) / 153;
  const int64_t d = doy - (153 * mp + 2) / 5 + 1;
  const int64_t m = mp < 10 ? mp + 3 : mp - 9;
  year = static_cast<int>(yoe + era * 400 + (m <= 2));
  month = static_cast<int>(m);
  day = static_cast<int>(d);
}

int64_t floorDiv(int64_t a, int64_t b) {
  return a / b - ((a % b != 0) && ((a < 0) != (b < 0)));
}

// ---- The user's zone -----------------------------------------------------------
struct ZoneCache {
  std::mutex mutex;
  pxkit::glib::TimeZone zone;  // null until first use and after a reset
  std::string tzVariable;      // the TZ value the zone was made from
  bool tzWasSet = false;
};

ZoneCache& cache() {
  static ZoneCache* c = new ZoneCache();  // never destroyed: used until the process ends
  return *c;
}

pxkit::glib::TimeZone makeZone(const char* tz) {
  if (tz && *tz == ':') ++tz;  // POSIX: ":Europe/Berlin" names a zone file
  if (tz && *tz == '\0') return pxkit::glib::TimeZone(g_time_zone_new_utc());  // TZ="" means UTC
  GTimeZone* zone = g_time_zone_new_identifier(tz);  // null identifier: the system zone
  if (!zone) zone = g_time_zone_new_utc();
  return pxkit::glib::TimeZone(zone);
}

// The zone in use, with a reference for the caller.
pxkit::glib::TimeZone currentZone() {
  ZoneCache& c = cache();
  std::lock_guard lock(c.mutex);
  const char* tz = std::getenv("TZ");
  const bool changed = (tz != nullptr) != c.tzWasSet || (tz && c.tzVariable != tz);
  if (!c.zone || changed) {
    c.tzWasSet = tz != nullptr;
    c.tzVariable = tz ? tz : "";
    c.zone = makeZone(tz);
  }
  return pxkit::glib::ref(c.zone.get());
}

// The offset east of UTC, in seconds, at Unix time `t`.
int32_t offsetAt(GTimeZone* zone, int64_t t) {
  const gint interval = g_time_zone_find_interval(zone, G_TIME_TYPE_UNIVERSAL, t);
  return interval < 0 ? 0 : g_time_zone_get_offset(zone, interval);
}

int64_t unixSeconds(PXDate date) {
  return static_cast<int64_t>(std::floor(date.timeIntervalSince1970()));
}

PXDateComponents componentsIn(GTimeZone* zone, PXDate date) {
  const double t = date.timeIntervalSince1970();
  PXDateComponents c;
  if (!std::isfinite(t) || std::fabs(t) > 4.0e11) return c;  // beyond any calendar we serve
  const int64_t unix = unixSeconds(date);
  const int64_t wall = unix + offsetAt(zone, unix);
  const int64_t days = floorDiv(wall, kSecondsPerDay);
  const int64_t secondOfDay = wall - days * kSecondsPerDay;
  civilFromDays(days, c.year, c.month, c.day);
  c.hour = static_cast<int>(secondOfDay / 3600);
  c.minute = static_cast<int>(secondOfDay / 60 % 60);
  c.second = static_cast<int>(secondOfDay % 60);
  c.weekday = static_cast<int>(days + 3 - floorDiv(days + 3, 7) * 7) + 1;  // 1970-01-01 was a Thursday
  return c;
}

std::optional<PXDate> dateIn(GTimeZone* zone, const PXDateComponents& c) {
  // Normalise the month into the year; days, hours, minutes and seconds
  // normalise by themselves in the linear wall-time count below.
  const int64_t year = c.year + floorDiv(c.month - 1, 12);
  const int64_t month = c.month - 1 - floorDiv(c.month - 1, 12) * 12 + 1;
  const int64_t wall = (daysFromCivil(year, month, 1) + c.day - 1) * kSecondsPerDay + int64_t{c.hour} * 3600 +
                       int64_t{c.minute} * 60 + c.second;
  int resultYear = 0, resultMonth = 0, resultDay = 0;
  civilFromDays(floorDiv(wall, kSecondsPerDay), resultYear, resultMonth, resultDay);
  if (resultYear < 1 || resultYear > 9999) return std::nullopt;

  // The offsets in force a day before and a day after: a wall time maps to
  // wall - offset for whichever of them is really in force then. Both may be
  // (the wall time occurs twice: take the earlier moment) or neither (it falls
  // in a gap: use the offset before the gap, which lands as far after the gap
  // as the time was into it).
  const int32_t before = offsetAt(zone, wall - kSecondsPerDay);
  const int32_t after = offsetAt(zone, wall + kSecondsPerDay);
  std::optional<int64_t> best;
  for (int32_t offset : {before, after}) {
    const int64_t candidate = wall - offset;
    if (offsetAt(zone, candidate) == offset && (!best || candidate < *best)) best = candidate;
  }
  const int64_t unix = best ? *best : wall - before;
  return PXDate::dateWithTimeIntervalSince1970(static_cast<double>(unix));
}

}  // namespace

PXDateComponents PXCalendar::components(PXDate date) {
  pxkit::glib::TimeZone zone = currentZone();
  return componentsIn(zone.get(), date);
}

std::optional<PXDate> PXCalendar::dateFromComponents(const PXDateComponents& components) {
  pxkit::glib::TimeZone zone = currentZone();
  return dateIn(zone.get(), components);
}

bool PXCalendar::isSameDay(PXDate a, PXDate b) {
  pxkit::glib::TimeZone zone = currentZone();
  const PXDateComponents ca = componentsIn(zone.get(), a);
  const PXDateComponents cb = componentsIn(zone.get(), b);
  return ca.day == cb.day && ca.month == cb.month && ca.year == cb.year;
}

std::optional<PXDate> PXCalendar::dateOnFollowingDay(PXDate date, int hour, int minute, int second) {
  pxkit::glib::TimeZone zone = currentZone();
  const PXDateComponents today = componentsIn(zone.get(), date);
  if (today.year < 1 || today.year > 9999) return std::nullopt;
  PXDateComponents next;
  next.year = today.year;
  next.month = today.month;
  next.day = today.day + 1;  // the next calendar day, whatever today's length in hours
  next.hour = hour;
  next.minute = minute;
  next.second = second;
  return dateIn(zone.get(), next);
}

int PXCalendar::secondsFromGMT(PXDate date) {
  pxkit::glib::TimeZone zone = currentZone();
  return offsetAt(zone.get(), unixSeconds(date));
}

std::string PXCalendar::timeZoneAbbreviation(PXDate date) {
  pxkit::glib::TimeZone zone = currentZone();
  const gint interval = g_time_zone_find_interval(zone.get(), G_TIME_TYPE_UNIVERSAL, unixSeconds(date));
  const char* abbreviation = interval < 0 ? nullptr : g_time_zone_get_abbreviation(zone.get(), interval);
  return abbreviation && *abbreviation ? abbreviation : "UTC";
}

std::string PXCalendar::timeZoneName() {
  pxkit::glib::TimeZone zone = currentZone();
  const char* identifier = g_time_zone_get_identifier(zone.get());
  return identifier && *identifier ? identifier : "UTC";
}

void PXCalendar::resetTimeZone() {
  tzset();  // libc's own idea of the zone, for anything in the process that asks it
  ZoneCache& c = cache();
  std::lock_guard lock(c.mutex);
  c.zone.reset();
}

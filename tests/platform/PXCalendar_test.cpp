#include <gtest/gtest.h>
#include <pxkit/platform/PXCalendar.h>

#include <cstdlib>
#include <ctime>
#include <string>

namespace {

// A UTC moment written as "YYYY-MM-DDTHH:MM:SSZ", and back.
PXDate utc(const char* text) {
  std::tm tm{};
  EXPECT_NE(strptime(text, "%Y-%m-%dT%H:%M:%SZ", &tm), nullptr) << text;
  return PXDate::dateWithTimeIntervalSince1970(static_cast<double>(timegm(&tm)));
}

std::string utcText(std::optional<PXDate> date) {
  if (!date) return "(none)";
  const auto whole = static_cast<time_t>(date->timeIntervalSince1970());
  std::tm tm{};
  gmtime_r(&whole, &tm);
  char buffer[32];
  strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return buffer;
}

void useZone(const char* zone) {
  zone ? setenv("TZ", zone, 1) : unsetenv("TZ");
  PXCalendar::resetTimeZone();
}

class PXCalendarTest : public ::testing::Test {
 protected:
  void TearDown() override { useZone(nullptr); }
};

// The daily fire date: 00:00:01 on the following local day, whatever the day's length.
TEST_F(PXCalendarTest, FollowingDayAtOneSecondPastMidnightAcrossDaylightSaving) {
  const struct {
    const char* zone;
    const char* from;      // UTC
    const char* expected;  // UTC of 00:00:01 local on the next local day
    const char* why;
  } rows[] = {
      {"Europe/Berlin", "2024-03-30T22:30:00Z", "2024-03-30T23:00:01Z", "23:30 before a 23-hour day"},
      {"Europe/Berlin", "2024-03-30T23:00:01Z", "2024-03-31T22:00:01Z", "from 00:00:01 of a 23-hour day"},
      {"Europe/Berlin", "2024-10-26T22:00:01Z", "2024-10-27T23:00:01Z", "from 00:00:01 of a 25-hour day"},
      {"America/New_York", "2024-11-03T06:30:00Z", "2024-11-04T05:00:01Z", "01:30 EST, the repeated hour"},
      {"America/Sao_Paulo", "2018-11-03T15:00:00Z", "2018-11-04T03:00:01Z", "the same second after the jump"},
      {"UTC", "9999-12-31T12:00:00Z", "(none)", "past the last day served"},
  };
  for (const auto& row : rows) {
    useZone(row.zone);
    EXPECT_EQ(utcText(PXCalendar::dateOnFollowingDay(utc(row.from), 0, 0, 1)), row.expected)
        << row.zone << " from " << row.from << ": " << row.why;
  }
  for (double outside : {3e11, -1e11})
    EXPECT_FALSE(PXCalendar::dateOnFollowingDay(PXDate::dateWithTimeIntervalSince1970(outside), 0, 0, 1));
}

TEST_F(PXCalendarTest, DatesFromComponentsResolveGapsOverlapsAndOverflow) {
  const struct {
    const char* zone;
    PXDateComponents local;
    const char* expected;
  } rows[] = {
      {"Europe/Berlin", {2024, 3, 31, 2, 30, 0}, "2024-03-31T01:30:00Z"},    // in the gap: 03:30 CEST
      {"Europe/Berlin", {2024, 10, 27, 2, 30, 0}, "2024-10-27T00:30:00Z"},   // repeated: the earlier
      {"America/New_York", {2024, 11, 3, 1, 0, 0}, "2024-11-03T05:00:00Z"},  // repeated: 01:00 EDT
      {"UTC", {2024, 13, 1, 0, 0, 0}, "2025-01-01T00:00:00Z"},
      {"UTC", {2024, 0, 1, 0, 0, 0}, "2023-12-01T00:00:00Z"},
      {"UTC", {2024, 3, 0, 0, 0, 0}, "2024-02-29T00:00:00Z"},
      {"UTC", {2023, 2, 29, 0, 0, 0}, "2023-03-01T00:00:00Z"},
      {"UTC", {2024, 1, 1, 0, -1, 0}, "2023-12-31T23:59:00Z"},
      {"UTC", {0, 1, 1, 0, 0, 0}, "(none)"},
      {"UTC", {9999, 12, 31, 24, 0, 0}, "(none)"},
  };
  for (const auto& row : rows) {
    useZone(row.zone);
    EXPECT_EQ(utcText(PXCalendar::dateFromComponents(row.local)), row.expected) << row.zone;
  }
  EXPECT_TRUE(PXCalendar::dateFromComponents({1, 1, 1, 0, 0, 0}) &&
              PXCalendar::dateFromComponents({9999, 12, 31, 23, 59, 59}));
  // Fractions of a second belong to the second they start in; no date outside the calendar.
  EXPECT_EQ(PXCalendar::components(utc("2024-01-01T00:00:00Z") + -0.25),
            (PXDateComponents{2023, 12, 31, 23, 59, 59, 7}));
  EXPECT_EQ(PXCalendar::components(PXDate::dateWithTimeIntervalSince1970(1e300)), PXDateComponents{});
}

TEST_F(PXCalendarTest, SameDayFollowsTheLocalCalendarNotTwentyFourHours) {
  const struct {
    const char* zone;
    const char* a;
    const char* b;
    bool same;
  } rows[] = {
      {"Europe/Berlin", "2024-10-26T22:00:00Z", "2024-10-27T22:59:59Z", true},   // 25 hours, one day
      {"Europe/Berlin", "2024-03-31T21:59:59Z", "2024-03-31T22:00:00Z", false},  // one second, two days
      {"UTC", "2024-06-01T00:00:00Z", "2025-06-01T00:00:00Z", false},            // not the same year
  };
  for (const auto& row : rows) {
    useZone(row.zone);
    EXPECT_EQ(PXCalendar::isSameDay(utc(row.a), utc(row.b)), row.same) << row.a << " " << row.b;
  }
}

TEST_F(PXCalendarTest, OffsetsAbbreviationsAndNamesFollowTheZone) {
  const struct {
    const char* zone;
    int offset;
    const char* abbreviation;
    const char* name;
  } rows[] = {
      {"America/New_York", -14400, "EDT", "America/New_York"},
      {":Europe/Berlin", 7200, "CEST", "Europe/Berlin"},
      {"Asia/Kolkata", 19800, "IST", "Asia/Kolkata"},
      {"", 0, "UTC", "UTC"},
      {"No/Such_Zone", 0, "UTC", "UTC"},
  };
  const PXDate at = utc("2024-07-15T12:00:00Z");
  for (const auto& row : rows) {
    setenv("TZ", row.zone, 1);  // a changed TZ is noticed without a reset
    EXPECT_EQ(PXCalendar::secondsFromGMT(at), row.offset) << "TZ=" << row.zone;
    EXPECT_EQ(PXCalendar::timeZoneAbbreviation(at), row.abbreviation) << "TZ=" << row.zone;
    EXPECT_EQ(PXCalendar::timeZoneName(), row.name) << "TZ=" << row.zone;
  }
  // Without TZ, the system zone: whatever it is, it agrees with libc's reading of it.
  unsetenv("TZ");
  const time_t t = static_cast<time_t>(at.timeIntervalSince1970());
  std::tm local{};
  tzset();
  localtime_r(&t, &local);
  EXPECT_EQ(PXCalendar::secondsFromGMT(at), local.tm_gmtoff);
  EXPECT_EQ(PXCalendar::components(at).hour, local.tm_hour);
}

}  // namespace

#include <gtest/gtest.h>
#include <pxkit/platform/PXCalendar.h>

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

namespace {

// A UTC moment written as "YYYY-MM-DDTHH:MM:SSZ".
PXDate utc(const char* text) {
  std::tm tm{};
  EXPECT_NE(strptime(text, "%Y-%m-%dT%H:%M:%SZ", &tm), nullptr) << text;
  return PXDate::dateWithTimeIntervalSince1970(static_cast<double>(timegm(&tm)));
}

std::string utcText(std::optional<PXDate> date) {
  if (!date) return "(none)";
  const double seconds = date->timeIntervalSince1970();
  time_t whole = static_cast<time_t>(seconds);
  std::tm tm{};
  gmtime_r(&whole, &tm);
  char buffer[32];
  strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return buffer;
}

void useZone(const char* zone) {
  if (zone) {
    setenv("TZ", zone, 1);
  } else {
    unsetenv("TZ");
  }
  PXCalendar::resetTimeZone();
}

class PXCalendarTest : public ::testing::Test {
 protected:
  void TearDown() override { useZone(nullptr); }
};

// ---- the daily fire date: 00:00:01 on the following local day -----------------------

struct FollowingDayRow {
  const char* zone;
  const char* from;      // UTC
  const char* expected;  // UTC of 00:00:01 local on the next local day
  const char* why;
};

const FollowingDayRow kFollowingDayRows[] = {
    // Europe/Berlin: CET +1, CEST +2; forward 2024-03-31 02:00, back 2024-10-27 03:00.
    {"Europe/Berlin", "2024-06-15T06:00:00Z", "2024-06-15T22:00:01Z", "ordinary summer day"},
    {"Europe/Berlin", "2024-03-30T22:30:00Z", "2024-03-30T23:00:01Z",
     "23:30 before a 23-hour day: now + 24 h would skip that day"},
    {"Europe/Berlin", "2024-03-30T23:00:01Z", "2024-03-31T22:00:01Z", "fired at 00:00:01 of the 23-hour day"},
    {"Europe/Berlin", "2024-10-26T22:00:01Z", "2024-10-27T23:00:01Z",
     "fired at 00:00:01 of the 25-hour day: now + 24 h would land on the same day again"},
    {"Europe/Berlin", "2024-10-27T00:30:00Z", "2024-10-27T23:00:01Z",
     "02:30 CEST, first of the repeated hour"},
    {"Europe/Berlin", "2024-10-27T22:59:59Z", "2024-10-27T23:00:01Z", "23:59:59 of the 25-hour day"},
    {"Europe/Berlin", "2024-02-28T09:00:00Z", "2024-02-28T23:00:01Z", "into a leap day"},
    // America/New_York: EST -5, EDT -4; forward 2024-03-10 02:00, back 2024-11-03 02:00.
    {"America/New_York", "2024-03-10T04:30:00Z", "2024-03-10T05:00:01Z", "23:30 EST before spring forward"},
    {"America/New_York", "2024-03-10T05:00:01Z", "2024-03-11T04:00:01Z",
     "fired at 00:00:01 of the 23-hour day"},
    {"America/New_York", "2024-11-03T03:30:00Z", "2024-11-03T04:00:01Z", "23:30 EDT before fall back"},
    {"America/New_York", "2024-11-03T04:00:01Z", "2024-11-04T05:00:01Z",
     "fired at 00:00:01 of the 25-hour day"},
    {"America/New_York", "2024-11-03T06:30:00Z", "2024-11-04T05:00:01Z",
     "01:30 EST, second of the repeated hour"},
    // A zone whose clocks jumped at midnight: 00:00:01 did not exist that day.
    {"America/Sao_Paulo", "2018-11-03T15:00:00Z", "2018-11-04T03:00:01Z",
     "00:00:01 fell in the gap: 01:00:01 -02, the same second after the jump"},
    {"UTC", "2024-03-31T23:59:59Z", "2024-04-01T00:00:01Z", "UTC"},
};

TEST_F(PXCalendarTest, FollowingDayAtOneSecondPastMidnightAcrossDaylightSaving) {
  for (const FollowingDayRow& row : kFollowingDayRows) {
    useZone(row.zone);
    EXPECT_EQ(utcText(PXCalendar::dateOnFollowingDay(utc(row.from), 0, 0, 1)), row.expected)
        << row.zone << " from " << row.from << ": " << row.why;
  }
}

// ---- components -----------------------------------------------------------------------

TEST_F(PXCalendarTest, DatesFromComponentsResolveGapsOverlapsAndOverflow) {
  struct Row {
    const char* zone;
    PXDateComponents local;
    const char* expected;
    const char* why;
  };
  const Row rows[] = {
      {"Europe/Berlin", {2024, 3, 31, 2, 30, 0}, "2024-03-31T01:30:00Z", "in the gap: 03:30 CEST"},
      {"Europe/Berlin",
       {2024, 10, 27, 2, 30, 0},
       "2024-10-27T00:30:00Z",
       "repeated hour: the earlier moment"},
      {"America/New_York", {2024, 3, 10, 2, 0, 0}, "2024-03-10T07:00:00Z", "in the gap: 03:00 EDT"},
      {"America/New_York", {2024, 11, 3, 1, 0, 0}, "2024-11-03T05:00:00Z", "repeated hour: 01:00 EDT"},
      {"UTC", {2024, 13, 1, 0, 0, 0}, "2025-01-01T00:00:00Z", "month 13"},
      {"UTC", {2024, 0, 1, 0, 0, 0}, "2023-12-01T00:00:00Z", "month 0"},
      {"UTC", {2024, 3, 0, 0, 0, 0}, "2024-02-29T00:00:00Z", "day 0: last of February in a leap year"},
      {"UTC", {2023, 2, 29, 0, 0, 0}, "2023-03-01T00:00:00Z", "29 February of a common year"},
      {"UTC", {2024, 12, 31, 24, 0, 1}, "2025-01-01T00:00:01Z", "hour 24"},
      {"UTC", {2024, 1, 1, 0, -1, 0}, "2023-12-31T23:59:00Z", "minute -1"},
  };
  for (const Row& row : rows) {
    useZone(row.zone);
    EXPECT_EQ(utcText(PXCalendar::dateFromComponents(row.local)), row.expected)
        << row.zone << ": " << row.why;
  }
  useZone("UTC");
  EXPECT_FALSE(PXCalendar::dateFromComponents({0, 12, 31, 0, 0, 0}));
  EXPECT_TRUE(PXCalendar::dateFromComponents({1, 1, 1, 0, 0, 0}));
  EXPECT_TRUE(PXCalendar::dateFromComponents({9999, 12, 31, 23, 59, 59}));
  EXPECT_FALSE(PXCalendar::dateFromComponents({9999, 12, 31, 24, 0, 0}));
  // Fractions of a second belong to the second they start in.
  EXPECT_EQ(PXCalendar::components(utc("2024-01-01T00:00:00Z") + -0.25),
            (PXDateComponents{2023, 12, 31, 23, 59, 59, 7}));
  EXPECT_EQ(PXCalendar::components(utc("2024-01-01T00:00:00Z") + 0.75),
            (PXDateComponents{2024, 1, 1, 0, 0, 0, 1}));
}

TEST_F(PXCalendarTest, SameDayFollowsTheLocalCalendarNotTwentyFourHours) {
  struct Row {
    const char* zone;
    const char* a;
    const char* b;
    bool same;
  };
  const Row rows[] = {
      {"Europe/Berlin", "2024-10-26T22:00:00Z", "2024-10-27T22:59:59Z", true},   // 25 hours, one day
      {"Europe/Berlin", "2024-03-31T21:59:59Z", "2024-03-31T22:00:00Z", false},  // one second, two days
      {"America/New_York", "2024-06-01T03:59:59Z", "2024-06-01T04:00:00Z", false},
      {"UTC", "2024-06-01T00:00:00Z", "2025-06-01T00:00:00Z", false},  // same day and month, not year
      {"UTC", "2024-06-01T00:00:00Z", "2024-07-01T00:00:00Z", false},  // same day, not month
  };
  for (const Row& row : rows) {
    useZone(row.zone);
    EXPECT_EQ(PXCalendar::isSameDay(utc(row.a), utc(row.b)), row.same)
        << row.zone << " " << row.a << " " << row.b;
  }
}

// ---- the zone itself --------------------------------------------------------------------

TEST_F(PXCalendarTest, OffsetsAbbreviationsAndNamesFollowTheZone) {
  struct Row {
    const char* zone;
    const char* at;
    int offset;
    const char* abbreviation;
    const char* name;
  };
  const Row rows[] = {
      {"America/New_York", "2024-07-15T12:00:00Z", -14400, "EDT", "America/New_York"},
      {"Europe/Berlin", "2024-07-15T12:00:00Z", 7200, "CEST", "Europe/Berlin"},
      {":Europe/Berlin", "2024-07-15T12:00:00Z", 7200, "CEST", "Europe/Berlin"},
      {"Asia/Kolkata", "2024-07-15T12:00:00Z", 19800, "IST", "Asia/Kolkata"},
      {"", "2024-07-15T12:00:00Z", 0, "UTC", "UTC"},
      {"No/Such_Zone", "2024-07-15T12:00:00Z", 0, "UTC", "UTC"},
  };
  for (const Row& row : rows) {
    useZone(row.zone);
    const PXDate at = utc(row.at);
    EXPECT_EQ(PXCalendar::secondsFromGMT(at), row.offset) << "TZ=" << row.zone;
    EXPECT_EQ(PXCalendar::timeZoneAbbreviation(at), row.abbreviation) << "TZ=" << row.zone;
    EXPECT_EQ(PXCalendar::timeZoneName(), row.name) << "TZ=" << row.zone;
  }
}

TEST_F(PXCalendarTest, AChangedZoneIsReadAgain) {
  const PXDate moment = utc("2024-07-15T22:30:00Z");
  useZone("Europe/Berlin");
  EXPECT_EQ(PXCalendar::components(moment).day, 16);
  // The watcher of the system zone calls resetTimeZone; a changed TZ is noticed by itself.
  setenv("TZ", "America/New_York", 1);
  EXPECT_EQ(PXCalendar::components(moment).day, 15);
  PXCalendar::resetTimeZone();
  EXPECT_EQ(PXCalendar::timeZoneName(), "America/New_York");
  // Without TZ, the system zone is used: whatever it is, it is a real zone and
  // agrees with libc's reading of it.
  useZone(nullptr);
  time_t t = static_cast<time_t>(moment.timeIntervalSince1970());
  std::tm local{};
  tzset();
  localtime_r(&t, &local);
  EXPECT_EQ(PXCalendar::secondsFromGMT(moment), local.tm_gmtoff);
  EXPECT_EQ(PXCalendar::components(moment).hour, local.tm_hour);
}

TEST_F(PXCalendarTest, ReadersRaceAZoneResetSafely) {
  useZone("Europe/Berlin");
  const PXDate moment = utc("2024-07-15T12:00:00Z");
  std::atomic<bool> done{false};
  std::atomic<int> wrong{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < 4; ++i) {
    readers.emplace_back([&] {
      while (!done.load()) {
        if (PXCalendar::components(moment).hour != 14) wrong.fetch_add(1);
      }
    });
  }
  for (int i = 0; i < 2000; ++i) PXCalendar::resetTimeZone();
  done = true;
  for (std::thread& t : readers) t.join();
  EXPECT_EQ(wrong.load(), 0);
}

}  // namespace

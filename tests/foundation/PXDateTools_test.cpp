#include <gtest/gtest.h>
#include <pxkit/foundation/PXDateTools.h>
#include <pxkit/platform/PXCalendar.h>

#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "foundation/internal/Localization.h"

namespace {

// 2012-05-01 10:20:30.123 UTC, a Tuesday.
constexpr double kSample1970 = 1335867630.123;
const PXDate kSample = PXDate::dateWithTimeIntervalSince1970(kSample1970);

// Sets the variables that choose language, locale and zone, and clears the
// others, so the host's own environment cannot leak in.
void setLocaleEnvironment(const char* language, const char* lcAll, const char* lang, const char* tz = "UTC") {
  for (const char* name : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LC_TIME", "LANG"}) unsetenv(name);
  if (language) setenv("LANGUAGE", language, 1);
  if (lcAll) setenv("LC_ALL", lcAll, 1);
  if (lang) setenv("LANG", lang, 1);
  setenv("TZ", tz, 1);
  PXCalendar::resetTimeZone();
}

// ---- splitting ---------------------------------------------------------------

constexpr int kUntouched = -99;  // what each output holds before the call

enum Want : unsigned { Y = 1, D = 2, H = 4, M = 8, S = 16, All = 31 };

struct SplitCase {
  const char* name;
  double interval;
  unsigned want;
  int years, days, hours, minutes, seconds;  // kUntouched where not wanted (or, for hours, kept)
};

TEST(PXDateTools, SplitTimeIntervalIntoWantedUnits) {
  const SplitCase cases[] = {
      {"one of each below a year", 90061, D | H | M | S, kUntouched, 1, 1, 1, 1},
      {"minutes not wanted stay in seconds", 3661, H | S, kUntouched, kUntouched, 1, kUntouched, 61},
      {"no years: 400 days stay days", 400 * 86400.0, D, kUntouched, 400, kUntouched, kUntouched, kUntouched},
      {"years take 365 days each", 400 * 86400.0, Y | D, 1, 35, kUntouched, kUntouched, kUntouched},
      {"exact unit boundaries", 31536000.0 + 86400 + 3600 + 60 + 1, All, 1, 1, 1, 1, 1},
      {"just below each boundary", 31535999.0, All, 0, 364, 23, 59, 59},
      {"fractions floor into seconds", 61.999, M | S, kUntouched, kUntouched, kUntouched, 1, 1},
      {"only seconds: everything", 90061.7, S, kUntouched, kUntouched, kUntouched, kUntouched, 90061},
      {"remainder below the smallest wanted unit is dropped", 90061, D, kUntouched, 1, kUntouched, kUntouched,
       kUntouched},
      {"days not wanted stay in hours", 2 * 86400.0 + 7200, Y | H | M, 0, kUntouched, 50, 0, kUntouched},
      // Kept on purpose: below an hour, hours keep the caller's value.
      {"below an hour", 3599, All, 0, 0, kUntouched, 59, 59},
      {"a whole day", 86400 + 120, All, 0, 1, kUntouched, 2, 0},
      {"a whole year", 31536000, All, 1, 0, kUntouched, 0, 0},
      {"hours alone", 3600, H, kUntouched, kUntouched, 1, kUntouched, kUntouched},
      // Negative intervals go whole into seconds, floored.
      {"negative fraction", -5.5, All, 0, 0, kUntouched, 0, -6},
      {"negative quarter", -0.25, All, 0, 0, kUntouched, 0, -1},
      {"negative years", -31536000.0 * 3, All, 0, 0, kUntouched, 0, -94608000},
      // Counts outside int saturate; not a number is nothing.
      {"huge", 1e18, Y, INT_MAX, kUntouched, kUntouched, kUntouched, kUntouched},
      {"huge negative", -1e18, S, kUntouched, kUntouched, kUntouched, kUntouched, INT_MIN},
      {"not a number", std::nan(""), S, kUntouched, kUntouched, kUntouched, kUntouched, 0},
  };
  for (const SplitCase& c : cases) {
    SCOPED_TRACE(c.name);
    int y = kUntouched, d = kUntouched, h = kUntouched, m = kUntouched, s = kUntouched;
    PXDateTools::splitTimeInterval(c.interval, c.want & Y ? &y : nullptr, c.want & D ? &d : nullptr,
                                   c.want & H ? &h : nullptr, c.want & M ? &m : nullptr,
                                   c.want & S ? &s : nullptr);
    EXPECT_EQ(y, c.years);
    EXPECT_EQ(d, c.days);
    EXPECT_EQ(h, c.hours);
    EXPECT_EQ(m, c.minutes);
    EXPECT_EQ(s, c.seconds);
  }
}

// ---- interval strings --------------------------------------------------------

struct WordingCase {
  double interval;
  unsigned want;
  bool omitUnused;
  const char* expected;
};

std::string wording(const WordingCase& c) {
  return PXDateTools::stringFromTimeInterval(c.interval, c.want & Y, c.want & D, c.want & H, c.want & M,
                                             c.want & S, c.omitUnused)
      .str();
}

TEST(PXDateTools, StringFromTimeIntervalInEnglish) {
  setLocaleEnvironment("en_US", nullptr, "C.UTF-8");
  const WordingCase cases[] = {
      {90061, D | H | M | S, false, "1 day 1 hour 1 minute 1 second"},
      {7200, H | M, true, "2 hours"},
      {7200, H | M, false, "2 hours 0 minutes"},
      {0, All, true, "0 years 0 days 0 hours 0 minutes 0 seconds"},
      {86400 + 60, D | H | M, true, "1 day 1 minute"},
      {2 * 31536000.0, Y | D, false, "2 years 0 days"},
      {1.9, S, false, "1 second"},
      {59, H | S, false, "0 hours 59 seconds"},  // the hour counter starts at 0 here
      {-5.5, H | S, true, "-6 seconds"},         // negative counts take the plural
      {-1, S, false, "-1 seconds"},
      {90061, 0, false, ""},
  };
  for (const WordingCase& c : cases) {
    SCOPED_TRACE(c.expected);
    EXPECT_EQ(wording(c), c.expected);
  }
  // Without the last argument zero units are written.
  EXPECT_EQ(PXDateTools::stringFromTimeInterval(7200, false, false, true, true, false).str(),
            "2 hours 0 minutes");
}

TEST(PXDateTools, StringFromTimeIntervalInTheUsersLanguage) {
  struct {
    const char* language;
    const char* allUnits;  // 1 year 2 days 1 hour 0 minutes 1 second
    const char* twoUnits;  // 2 days 3 hours, omitUnused
  } cases[] = {
      {"de", "1 Jahr 2 Tage 1 Stunde 0 Minuten 1 Sekunde", "2 Tage 3 Stunden"},
      {"ja_JP", "1 年 2 日 1 時間 0 分 1 秒", "2 日 3 時間"},
      {"zh_TW", "1 年 2 天 1 小時 0 分鐘 1 秒", "2 天 3 小時"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.language);
    setLocaleEnvironment(c.language, nullptr, "C.UTF-8");
    EXPECT_EQ(wording({31536000.0 + 2 * 86400 + 3600 + 1, All, false, ""}), c.allUnits);
    EXPECT_EQ(wording({2 * 86400.0 + 3 * 3600, D | H | M, true, ""}), c.twoUnits);
  }
}

// ---- locale formatting -------------------------------------------------------

TEST(PXDateTools, LocalizedStringInEnglishUTC) {
  setLocaleEnvironment(nullptr, "en_US.UTF-8", nullptr, "UTC");
  // ICU separates the time from AM/PM with a narrow no-break space.
  const std::string am =
      "\u202f"
      "AM";
  struct {
    PXDateFormatterStyle date, time;
    std::string expected;
  } cases[] = {
      {PXDateFormatterNoStyle, PXDateFormatterNoStyle, ""},
      {PXDateFormatterShortStyle, PXDateFormatterNoStyle, "5/1/12"},
      {PXDateFormatterMediumStyle, PXDateFormatterNoStyle, "May 1, 2012"},
      {PXDateFormatterLongStyle, PXDateFormatterNoStyle, "May 1, 2012"},
      {PXDateFormatterFullStyle, PXDateFormatterNoStyle, "Tuesday, May 1, 2012"},
      {PXDateFormatterNoStyle, PXDateFormatterShortStyle, "10:20" + am},
      {PXDateFormatterNoStyle, PXDateFormatterMediumStyle, "10:20:30" + am},
      {PXDateFormatterNoStyle, PXDateFormatterLongStyle, "10:20:30" + am + " UTC"},
      {PXDateFormatterNoStyle, PXDateFormatterFullStyle, "10:20:30" + am + " Coordinated Universal Time"},
      {PXDateFormatterShortStyle, PXDateFormatterShortStyle, "5/1/12, 10:20" + am},
      {PXDateFormatterMediumStyle, PXDateFormatterMediumStyle, "May 1, 2012, 10:20:30" + am},
      {PXDateFormatterFullStyle, PXDateFormatterLongStyle, "Tuesday, May 1, 2012 at 10:20:30" + am + " UTC"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.expected);
    EXPECT_EQ(PXDateTools::localizedStringFormattedWithDateStyle(kSample, c.date, c.time).str(), c.expected);
  }
}

// ---- timestamp parsers ---------------------------------------------------------

struct ParseCase {
  const char* text;
  std::optional<double> since1970;  // nullopt: no date
};

void expectParses(std::optional<PXDate> (*parse)(std::string_view), const ParseCase& c) {
  SCOPED_TRACE(c.text);
  const std::optional<PXDate> date = parse(c.text);
  ASSERT_EQ(date.has_value(), c.since1970.has_value());
  if (date) {
    // Dates count from 2001: a date near 1970 keeps about a tenth of a microsecond.
    EXPECT_NEAR(date->timeIntervalSince1970(), *c.since1970, 1e-6);
  }
}

TEST(PXDateTools, DateFromRFC3339DateStringReadsOnlyPositiveOffsets) {
  const ParseCase cases[] = {
      {"2012-05-01T10:20:30+02:00", 1335860430.0},
      {"2012-05-01T10:20:30+0200", 1335860430.0},
      {"2012-05-01T10:20:30+01:00", 1335864030.0},
      {"2012-05-01T10:20:30+00:00", 1335867630.0},
      {"2012-05-01T10:20:30+14:00", 1335817230.0},
      // Without a "+", the colons are cut from the date's "-" on: nothing matches.
      {"2012-05-01T10:20:30-07:00", std::nullopt},
      {"2012-05-01T10:20:30-0800", std::nullopt},
      {"2012-05-01T10:20:30Z", std::nullopt},
      {"2012-05-01T10:20:30", std::nullopt},
      // Shape.
      {"2012-05-01T10:20:30.123+02:00", std::nullopt},  // no fraction in this form
      {"2012-05-01T10:20+02:00", std::nullopt},
      {"2012-05-01T10:20:30+02:00 ", std::nullopt},
      {"2012-02-30T10:20:30+02:00", std::nullopt},
      {"garbage", std::nullopt},  // neither sign: parsed as it is
      {"", std::nullopt},
  };
  for (const ParseCase& c : cases) expectParses(&PXDateTools::dateFromRFC3339DateString, c);
}

TEST(PXDateTools, TimestampParsersRefuseTextsLongerThanTheLimit) {
  // A zero-padded year keeps a timestamp valid at any length.
  auto padded = [](size_t length, const std::string& tail) {
    return std::string(length - tail.size(), '0') + tail;
  };
  const std::string iso = "2012-05-01T10:20:30.123+0200";
  const std::string rfc = "2012-05-01T10:20:30+02:00";
  for (size_t length : {PXDateTools::kPXMaxTimestampLength - 1, PXDateTools::kPXMaxTimestampLength}) {
    EXPECT_TRUE(PXDateTools::dateFromISO8601DateString(padded(length, iso)).has_value()) << length;
    EXPECT_TRUE(PXDateTools::dateFromRFC3339DateString(padded(length, rfc)).has_value()) << length;
  }
  const size_t over = PXDateTools::kPXMaxTimestampLength + 1;
  EXPECT_FALSE(PXDateTools::dateFromISO8601DateString(padded(over, iso)).has_value());
  EXPECT_FALSE(PXDateTools::dateFromRFC3339DateString(padded(over, rfc)).has_value());
}

TEST(PXDateTools, TimestampParsersAreSharedSafelyAcrossThreads) {
  // Concurrent first use and concurrent parsing: every thread reads every date right.
  constexpr int kThreads = 4;
  constexpr int kRounds = 200;
  std::vector<int> wrong(kThreads, 0);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([i, &wrong] {
      for (int round = 0; round < kRounds; ++round) {
        const int second = (i * kRounds + round) % 60;
        char iso[40], rfc[40];
        std::snprintf(iso, sizeof iso, "2012-05-01T10:20:%02d.250-0800", second);
        std::snprintf(rfc, sizeof rfc, "2012-05-01T10:20:%02d+01:00", second);
        auto a = PXDateTools::dateFromISO8601DateString(iso);
        auto b = PXDateTools::dateFromRFC3339DateString(rfc);
        if (!a || a->timeIntervalSince1970() != 1335896400.25 + second) ++wrong[i];
        if (!b || b->timeIntervalSince1970() != 1335864000.0 + second) ++wrong[i];
      }
    });
  }
  for (auto& t : threads) t.join();
  for (int i = 0; i < kThreads; ++i) {
    EXPECT_EQ(wrong[i], 0) << "thread " << i;
  }
}

}  // namespace

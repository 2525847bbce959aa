#include <gtest/gtest.h>
#include <pxkit/foundation/PXDateTools.h>
#include <pxkit/platform/PXCalendar.h>

#include <cmath>
#include <optional>
#include <string>

namespace {

// Sets language, locale and zone, clearing the rest so the host's environment cannot leak in.
void setLocaleEnvironment(const char* language, const char* lcAll, const char* tz = "UTC") {
  for (const char* name : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LC_TIME"}) unsetenv(name);
  if (language) setenv("LANGUAGE", language, 1);
  if (lcAll) setenv("LC_ALL", lcAll, 1);
  setenv("LANG", "C.UTF-8", 1);
  setenv("TZ", tz, 1);
  PXCalendar::resetTimeZone();
}

enum Want : unsigned { Y = 1, D = 2, H = 4, M = 8, S = 16, All = 31 };

TEST(PXDateTools, StringFromTimeIntervalInTheUsersLanguage) {
  struct {
    const char* language;
    double interval;
    unsigned want;
    bool omitUnused;
    const char* expected;
  } cases[] = {
      {"en_US", 90061, D | H | M | S, false, "1 day 1 hour 1 minute 1 second"},
      {"en_US", 0, All, true, "0 years 0 days 0 hours 0 minutes 0 seconds"},
      {"en_US", 59, H | S, false, "0 hours 59 seconds"},  // kept on purpose: below an hour, hours start at 0
      {"en_US", -1, S, false, "-1 seconds"},              // negative counts take the plural
      {"en_US", 1e18, Y, false, "2147483647 years"},      // counts outside int saturate
      {"en_US", -1e18, S, false, "-2147483648 seconds"},
      {"en_US", std::nan(""), S, false, "0 seconds"},
      {"de", 31536000.0 + 2 * 86400 + 3600 + 1, All, false, "1 Jahr 2 Tage 1 Stunde 0 Minuten 1 Sekunde"},
      {"zh_TW", 2 * 86400.0 + 3 * 3600, D | H | M, true, "2 天 3 小時"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.expected);
    setLocaleEnvironment(c.language, nullptr);
    EXPECT_EQ(PXDateTools::stringFromTimeInterval(c.interval, c.want & Y, c.want & D, c.want & H, c.want & M,
                                                  c.want & S, c.omitUnused)
                  .str(),
              c.expected);
  }
}

TEST(PXDateTools, LocalizedStringInEnglishUTC) {
  setLocaleEnvironment(nullptr, "en_US.UTF-8");
  const PXDate sample = PXDate::dateWithTimeIntervalSince1970(1335867630.123);  // Tue 2012-05-01 10:20:30 UTC
  const std::string am =
      "\u202f"
      "AM";  // ICU separates the time from AM/PM with a narrow no-break space
  struct {
    PXDateFormatterStyle date, time;
    std::string expected;
  } cases[] = {
      {PXDateFormatterNoStyle, PXDateFormatterNoStyle, ""},
      {static_cast<PXDateFormatterStyle>(99), PXDateFormatterNoStyle, ""},  // unknown: none
      {PXDateFormatterShortStyle, PXDateFormatterNoStyle, "5/1/12"},
      {PXDateFormatterMediumStyle, PXDateFormatterMediumStyle, "May 1, 2012, 10:20:30" + am},
      {PXDateFormatterNoStyle, PXDateFormatterFullStyle, "10:20:30" + am + " Coordinated Universal Time"},
      {PXDateFormatterFullStyle, PXDateFormatterShortStyle, "Tuesday, May 1, 2012 at 10:20" + am},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.expected);
    EXPECT_EQ(PXDateTools::localizedStringFormattedWithDateStyle(sample, c.date, c.time).str(), c.expected);
  }
  setLocaleEnvironment(nullptr, "en_US.UTF-8", "XYZ-3");
  EXPECT_EQ(PXDateTools::localizedStringFormattedWithDateStyle(sample, PXDateFormatterNoStyle,
                                                               PXDateFormatterShortStyle)
                .str(),
            "1:20\u202fPM");
}

TEST(PXDateTools, TimestampParsersReadOnlyTheirFormsUpToTheLengthLimit) {
  const std::pair<const char*, double> cases[] = {
      {"2012-05-01T10:20:30+02:00", 1335860430.0},  // 0 below: no date
      {"2012-05-01T10:20:30-07:00", 0},      // without a "+", the colons are cut from the date's "-" on
      {"2012-05-01T10:20:30.123+02:00", 0},  // no fraction in this form
      {"2012-02-30T10:20:30+02:00", 0},
      {"garbage", 0}};  // neither sign: parsed as it is
  for (const auto& [text, since1970] : cases) {
    const std::optional<PXDate> date = PXDateTools::dateFromRFC3339DateString(text);
    EXPECT_NEAR(date ? date->timeIntervalSince1970() : 0, since1970, 1e-6) << text;  // dates count from 2001
  }
  // A zero-padded year keeps a timestamp valid at any length.
  const std::string iso = "2012-05-01T10:20:30.123+0200", rfc = "2012-05-01T10:20:30+02:00";
  for (size_t length : {PXDateTools::kPXMaxTimestampLength, PXDateTools::kPXMaxTimestampLength + 1}) {
    const bool fits = length <= PXDateTools::kPXMaxTimestampLength;
    EXPECT_EQ(PXDateTools::dateFromISO8601DateString(std::string(length - iso.size(), '0') + iso).has_value(),
              fits);
    EXPECT_EQ(PXDateTools::dateFromRFC3339DateString(std::string(length - rfc.size(), '0') + rfc).has_value(),
              fits);
  }
}

}  // namespace

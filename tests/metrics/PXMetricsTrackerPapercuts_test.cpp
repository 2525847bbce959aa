#include <gtest/gtest.h>
#include <pxkit/metrics/PXMetricsTracker.h>
#include <pxkit/objects/PXClock.h>
#include <pxkit/platform/PXBundle.h>
#include <pxkit/platform/PXCalendar.h>
#include <pxkit/platform/PXPreferences.h>

#include <cstdlib>
#include <vector>

#include "metrics/internal/PXMetricsTrackerInternal.h"
#include "support/PXTempHome.h"

namespace {

constexpr double kNoon = 700056000;  // 2023-03-09 12:00:00 UTC

void setSystemID(const char* id) {
  PXPreferences::setValue("MetricsRandomSystemID", id, kPXPreferencesCurrentApplication,
                          kPXPreferencesCurrentUser, kPXPreferencesCurrentHost);
}

class PXMetricsTrackerPapercutsTest : public testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    PXCalendar::resetTimeZone();
    ASSERT_TRUE(PXBundle::setMainBundleIdentity("org.pxkit.PapercutTest", "3.1", "310"));
    setSystemID("FIXED-SYSTEM-ID");
    tracker = PXMake<PXMetricsTracker>();
  }

  static std::vector<std::string> keysOf(const PXDictionary& dictionary) {
    std::vector<std::string> keys;
    for (const auto& [key, value] : dictionary) keys.push_back(std::string(key.stringValue()));
    return keys;
  }
  PXRef<PXMetric> metric(const char* identifier, int32_t value, double frequency = 0) {
    PXRef<PXMetric> m = tracker->metricForIdentifier(identifier);
    m->setValue(value);
    m->setSubmissionFrequency(frequency);
    return m;
  }
  std::vector<std::string> reportedIdentifiers(const PXDictionary& papercut) {
    std::vector<std::string> names;
    PXRef<PXArray> sets = papercut.objectForKey("metrics").arrayValue();
    for (const PXValue& set : *sets) {
      names.push_back(std::string(set.dictionaryValue()->objectForKey("identifier").stringValue()));
    }
    return names;
  }

  PXTempHome home;
  PXScopedVirtualClock clock{PXDate(kNoon)};
  PXRef<PXMetricsTracker> tracker;
};

}  // namespace

TEST_F(PXMetricsTrackerPapercutsTest, RecordHasItsKeysInOrderWithTheHostsIdentityUpToTheFirstMissingValue) {
  tracker->setChannel(kPXMetricsChannelRetail);
  tracker->metricForIdentifier("with.qualifiers", "p", "s")->setValue(3);
  metric("plain", -2);
  clock.advance(1.5 * 86400);
  PXRef<PXMutableDictionary> cut =
      pxkit::internal::papercutDictWithTimestamp(*tracker, PXDate(kNoon), /*reset=*/false);
  ASSERT_TRUE(cut);
  EXPECT_EQ(keysOf(*cut), (std::vector<std::string>{"packageID", "applicationID", "metrics", "totalUsageDays",
                                                    "timestamp", "channel", "applicationVersion"}));
  EXPECT_EQ(cut->objectForKey("packageID").stringValue(), "9c9907a407b6cc5316a6306a5bc38742")
      << "MD5 of the system ID followed by the timestamp as %f";
  EXPECT_EQ(cut->objectForKey("applicationID").stringValue(), "org.pxkit.PapercutTest");
  EXPECT_EQ(cut->objectForKey("totalUsageDays").intValue(), 0);
  EXPECT_EQ(cut->objectForKey("timestamp").doubleValue(), kNoon + kPXTimeIntervalSince1970);
  EXPECT_EQ(cut->objectForKey("channel").stringValue(), "retail");
  EXPECT_EQ(cut->objectForKey("applicationVersion").stringValue(), "3.1");

  PXRef<PXArray> sets = cut->objectForKey("metrics").arrayValue();
  ASSERT_EQ(sets->count(), 2u);
  EXPECT_EQ(keysOf(*sets->objectAtIndex(0).dictionaryValue()),
            (std::vector<std::string>{"identifier", "primary", "secondary", "value"}));
  EXPECT_EQ(keysOf(*sets->objectAtIndex(1).dictionaryValue()),
            (std::vector<std::string>{"identifier", "value"}));
  EXPECT_EQ(sets->objectAtIndex(1).dictionaryValue()->objectForKey("value").intValue(), -2);

  // A microsecond apart is another package; the same moment is the same one.
  EXPECT_EQ(pxkit::internal::papercutDictWithTimestamp(*tracker, PXDate(kNoon + 1e-6), false)
                ->objectForKey("packageID")
                .stringValue(),
            "466cb00b0ee88ae0ac04cddb307feaf8");
  EXPECT_EQ(
      pxkit::internal::papercutDictWithTimestamp(*tracker, PXDate(kNoon), false)->objectForKey("packageID"),
      cut->objectForKey("packageID"));

  // The record stops at the first missing host value; no channel is "default".
  ASSERT_TRUE(PXBundle::setMainBundleIdentity("org.pxkit.NoVersion", {}, {}));
  tracker->setChannel({});
  cut = pxkit::internal::papercutDictWithTimestamp(*tracker, PXDate(kNoon), false);
  EXPECT_EQ(keysOf(*cut), (std::vector<std::string>{"packageID", "applicationID", "metrics", "totalUsageDays",
                                                    "timestamp", "channel"}));
  EXPECT_EQ(cut->objectForKey("channel").stringValue(), "default");
}

TEST_F(PXMetricsTrackerPapercutsTest, CompilingReportsDueMetricsAndResetsEveryOne) {
  metric("zero", 0);
  metric("due", 5);
  PXRef<PXMetric> throttled = metric("throttled", 9, 86400);
  PXRef<PXMetric> fixed = tracker->metricForIdentifier("fixed", {}, {}, 1);
  tracker->setLastPaperCutDateByMetricID(
      PXDictionary::dictionaryWithEntries({{"throttled", PXDate(kNoon - 23 * 3600)}}));

  tracker->makePaperCutWithTimestamp(tracker->metricsTimeBase());
  ASSERT_EQ(tracker->paperCuts()->count(), 1u);
  EXPECT_EQ(reportedIdentifiers(*tracker->paperCuts()->objectAtIndex(0).dictionaryValue()),
            (std::vector<std::string>{"due", "fixed"}))
      << "zero values are omitted; a metric sent 23 h ago with a daily frequency waits";
  EXPECT_EQ(throttled->value(), 0) << "throttled metrics are reset all the same";
  EXPECT_EQ(fixed->value(), 1) << "a fixed value survives the reset";
  EXPECT_EQ(tracker->metricsTimeBase(), clock.now());

  // Exactly 86400 s after the recorded date the metric is reported again.
  throttled->setValue(2);
  clock.set(PXDate(kNoon + 3600));
  tracker->makePaperCutWithTimestamp(tracker->metricsTimeBase());
  EXPECT_EQ(reportedIdentifiers(*tracker->paperCuts()->lastObject().dictionaryValue()),
            (std::vector<std::string>{"throttled"}))
      << "the fixed value is throttled now that it was sent";
}

TEST_F(PXMetricsTrackerPapercutsTest, SharedIdentifierSharesOneThrottle) {
  tracker->metricForIdentifier("shared", "a")->setValue(1);
  PXRef<PXMetric> b = tracker->metricForIdentifier("shared", "b");
  b->setValue(1);
  b->setSubmissionFrequency(86400);
  tracker->setLastPaperCutDateByMetricID(
      PXDictionary::dictionaryWithEntries({{"shared", PXDate(kNoon - 60)}}));
  PXRef<PXMutableArray> sets =
      pxkit::internal::compileMetricsDataSetsFromMetrics(*tracker, *tracker->metrics(), false);
  ASSERT_EQ(sets->count(), 1u);
  EXPECT_EQ(sets->objectAtIndex(0).dictionaryValue()->objectForKey("primary").stringValue(), "a");
}

TEST_F(PXMetricsTrackerPapercutsTest, EmptyPeriodsLeaveNoPapercutButStillRestart) {
  metric("zero", 0);
  clock.advance(10);
  tracker->makePaperCutWithTimestamp(tracker->metricsTimeBase());
  EXPECT_EQ(tracker->paperCuts()->count(), 0u);
  EXPECT_EQ(tracker->metricsTimeBase(), clock.now());

  pxkit::internal::addPapercut(*tracker, {});
  pxkit::internal::addPapercut(
      *tracker, PXDictionary::dictionaryWithEntries({{"metrics", PXArray::array()}, {"timestamp", 1.0}}));
  pxkit::internal::addPapercut(*tracker, PXDictionary::dictionaryWithEntries({{"packageID", "x"}}));
  EXPECT_EQ(tracker->paperCuts()->count(), 0u);
}

TEST_F(PXMetricsTrackerPapercutsTest, RecordedDatesNeverMoveBackwards) {
  auto cutAt = [](double since1970) {
    return PXDictionary::dictionaryWithEntries(
        {{"metrics", PXArray::arrayWithObjects({PXDictionary::dictionaryWithEntries({{"identifier", "m"}}),
                                                PXDictionary::dictionaryWithEntries({{"value", 1}})})},
         {"timestamp", since1970}});
  };
  pxkit::internal::addPapercut(*tracker, cutAt(2000));
  pxkit::internal::addPapercut(*tracker, cutAt(1000));
  EXPECT_EQ(tracker->paperCuts()->count(), 2u);
  EXPECT_EQ(tracker->lastPaperCutDateByMetricID()->objectForKey("m").dateValue(),
            PXDate::dateWithTimeIntervalSince1970(2000));
  EXPECT_EQ(tracker->lastPaperCutDateByMetricID()->count(), 1u)
      << "data sets without identifier record nothing";
}

TEST_F(PXMetricsTrackerPapercutsTest, AutomaticPapercutIsDueWhenTheLocalDateChanges) {
  struct Row {
    const char* zone;
    double base;   // seconds after kNoon
    double later;  // seconds after kNoon
    bool due;
  };
  for (Row row : {Row{"UTC", 0, 11 * 3600 + 59 * 60, false}, Row{"UTC", -12 * 3600, 11 * 3600 - 1, false},
                  Row{"UTC", 0, 12 * 3600 + 1, true}, Row{"UTC", 0, 365 * 86400.0, true},
                  Row{"America/New_York", -7 * 3600 + 1, -6 * 3600 + 1, false},  // 00:00:01 → 01:00:01 EST
                  Row{"America/New_York", -7 * 3600 - 1, -7 * 3600 + 1, true},   // 23:59:59 → 00:00:01 EST
                  Row{"Asia/Tokyo", 0, 3 * 3600, true}}) {                       // 21:00 → 00:00 JST
    setenv("TZ", row.zone, 1);
    PXCalendar::resetTimeZone();
    tracker->setMetricsTimeBase(PXDate(kNoon + row.base));
    clock.set(PXDate(kNoon + row.later));
    PXDateComponents base = PXCalendar::components(tracker->metricsTimeBase());
    PXDateComponents later = PXCalendar::components(clock.now());
    EXPECT_EQ(tracker->shouldPerformAutomaticPapercut(), row.due)
        << row.zone << ": " << base.year << "-" << base.month << "-" << base.day << " " << base.hour << ":"
        << base.minute << " → " << later.year << "-" << later.month << "-" << later.day << " " << later.hour
        << ":" << later.minute;
  }
}

TEST_F(PXMetricsTrackerPapercutsTest, Md5OfUtf8Bytes) {
  EXPECT_EQ(pxkit::internal::md5ChecksumOfString(""), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(pxkit::internal::md5ChecksumOfString("abc"), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(pxkit::internal::md5ChecksumOfString("\xc3\xa9t\xc3\xa9"), "deaf6a1e9612a4d8c221e68ee23d58d2");
  EXPECT_TRUE(pxkit::internal::md5ChecksumOfString({}).isAbsent());
}

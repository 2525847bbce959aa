#include <gtest/gtest.h>
#include <pxkit/metrics/PXMetricsTracker.h>
#include <pxkit/objects/PXClock.h>
#include <pxkit/objects/PXKeyedArchiver.h>
#include <pxkit/platform/PXBundle.h>
#include <pxkit/platform/PXCalendar.h>
#include <pxkit/platform/PXUserDefaults.h>

#include <cstdlib>
#include <vector>

#include "metrics/internal/PXMetricsTrackerInternal.h"
#include "support/PXRunLoopUntil.h"
#include "support/PXTempHome.h"

namespace {

// Noon UTC on a fixed day, so that moving a few hours stays on the same date.
constexpr double kNoon = 700056000;  // 2023-03-09 12:00:00 UTC

class PXMetricsTrackerPersistenceTest : public testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    PXCalendar::resetTimeZone();
    ASSERT_TRUE(PXBundle::setMainBundleIdentity("org.pxkit.PersistenceTest", "2.0", "200"));
  }

  // The root dictionary of a state blob.
  static PXRef<PXDictionary> rootOf(const PXRef<PXData>& blob) {
    return PXKeyedUnarchiver::unarchiveObjectWithData(blob).dictionaryValue();
  }
  static std::vector<std::string> keysOf(const PXDictionary& dictionary) {
    std::vector<std::string> keys;
    for (const auto& [key, value] : dictionary) keys.push_back(std::string(key.stringValue()));
    return keys;
  }

  PXTempHome home;
  PXScopedVirtualClock clock{PXDate(kNoon)};
};

}  // namespace

TEST_F(PXMetricsTrackerPersistenceTest, SaveThenLoadInAFreshTrackerBringsTheStateBack) {
  auto tracker = PXMake<PXMetricsTracker>();
  PXDate origin = tracker->metricsOriginTime();
  tracker->updateMetricValue(7, "counter", "p", "s");
  tracker->startOrContinueUsageWithAutostopAfterInterval(0, "usage");
  tracker->setFixedValue(1, "fixed");
  tracker->setUserData(PXDictionary::dictionaryWithEntries({{"theme", "blue"}}));
  pxkit::internal::addPapercut(
      *tracker, PXDictionary::dictionaryWithEntries(
                    {{"packageID", "abc"},
                     {"metrics", PXArray::arrayWithObjects({PXDictionary::dictionaryWithEntries(
                                     {{"identifier", "old"}, {"value", 1}})})},
                     {"timestamp", kNoon + kPXTimeIntervalSince1970 - 86400}}));
  tracker->settleOutstandingOperationsWithOperationSync();  // usage starts now, not later
  clock.advance(30.9);
  // The state of another system in the same preferences stays as it is.
  PXUserDefaults* defaults = PXUserDefaults::standardUserDefaults();
  const PXValue foreign(PXData::dataWithString("someone else's state"));
  defaults->setObject(PXDictionary::dictionaryWithEntries({{"OTHER-SYSTEM", foreign}}), "Metrics");
  tracker->saveToPreferences();
  EXPECT_EQ(defaults->dictionaryForKey("Metrics")->objectForKey("OTHER-SYSTEM"), foreign);

  clock.advance(3600);  // still the same day: the saved period goes on
  auto fresh = PXMake<PXMetricsTracker>();
  fresh->loadFromPreferences();
  EXPECT_EQ(fresh->metricsOriginTime(), origin);
  EXPECT_EQ(fresh->metricsTimeBase(), origin);
  EXPECT_EQ(fresh->userData()->objectForKey("theme").stringValue(), "blue");
  ASSERT_EQ(fresh->paperCuts()->count(), 1u);
  EXPECT_EQ(fresh->paperCuts()->objectAtIndex(0).dictionaryValue()->objectForKey("packageID").stringValue(),
            "abc");
  EXPECT_TRUE(fresh->lastPaperCutDateByMetricID()->objectForKey("old").isDate());

  PXRef<PXMetric> counter = pxkit::internal::findMetricForIdentifier(*fresh, "counter", "p", "s");
  ASSERT_TRUE(counter);
  EXPECT_EQ(counter->value(), 7);
  PXRef<PXMetric> usage = pxkit::internal::findMetricForIdentifier(*fresh, "usage", {}, {});
  ASSERT_TRUE(usage);
  EXPECT_EQ(usage->value(), 30) << "whole seconds committed at save";
  EXPECT_FALSE(pxkit::internal::findMetricForIdentifier(*fresh, "fixed", {}, {}))
      << "fixed values are rebuilt each launch";
}

TEST_F(PXMetricsTrackerPersistenceTest, BlobKeysFollowTheStoredOrderAndStopAtTheFirstAbsentValue) {
  auto tracker = PXMake<PXMetricsTracker>();
  tracker->updateMetricValue(1, "m");
  PXRef<PXDictionary> root = rootOf(tracker->storeAsData());
  ASSERT_TRUE(root);
  EXPECT_EQ(keysOf(*root), (std::vector<std::string>{"TimeBase", "OriginTime", "Data", "Storage", "PaperCuts",
                                                     "LastPaperCutDateByMetricID", "SavedStatePaperCut"}))
      << "never submitted: no LastAutoSubmissionDate";

  tracker->setLastAutoSubmissionDate(PXDate(kNoon - 10));
  root = rootOf(tracker->storeAsData());
  EXPECT_EQ(root->count(), 8u);
  EXPECT_EQ(root->objectForKey("LastAutoSubmissionDate").dateValue(), PXDate(kNoon - 10));

  // An absent value drops its key and every key after it.
  tracker->setPaperCuts({});
  root = rootOf(tracker->storeAsData());
  EXPECT_EQ(keysOf(*root), (std::vector<std::string>{"TimeBase", "OriginTime", "Data", "Storage"}));

  // The saved-state papercut is a preview: making it reset nothing.
  EXPECT_EQ(pxkit::internal::findMetricForIdentifier(*tracker, "m", {}, {})->value(), 1);
}

TEST_F(PXMetricsTrackerPersistenceTest, BadBlobsGiveAFreshState) {
  auto tracker = PXMake<PXMetricsTracker>();
  PXDate start = tracker->metricsTimeBase();
  EXPECT_FALSE(tracker->restoreFromData({}));
  EXPECT_FALSE(tracker->restoreFromData(PXData::dataWithString("not an archive")));
  EXPECT_FALSE(
      tracker->restoreFromData(PXKeyedArchiver::archivedDataWithRootObject(PXValue("a string root"))));
  EXPECT_EQ(tracker->metricsTimeBase(), start);

  // Stored entries that are not data are ignored, and loading still works.
  PXUserDefaults::standardUserDefaults()->setObject(
      PXDictionary::dictionaryWithEntries({{PXMetricsTracker::systemID(), "text, not data"}}), "Metrics");
  auto loaded = PXMake<PXMetricsTracker>();
  loaded->loadFromPreferences();
  EXPECT_EQ(loaded->metrics()->count(), 0u);

  // A dictionary with nothing known in it restores, with now for the dates.
  clock.advance(5);
  EXPECT_TRUE(tracker->restoreFromData(
      PXKeyedArchiver::archivedDataWithRootObject(PXValue(PXDictionary::dictionary()))));
  EXPECT_EQ(tracker->metricsTimeBase(), clock.now());
  EXPECT_EQ(tracker->paperCuts()->count(), 0u);
}

TEST_F(PXMetricsTrackerPersistenceTest, DuplicateArchivedMetricsRestoreOnlyTheFirst) {
  auto first = PXMake<PXMetric>();
  first->setIdentifier("dup");
  first->setValue(1);
  auto second = PXMake<PXMetric>();
  second->setIdentifier("dup");
  second->setPrimary("");
  second->setValue(2);
  auto state = PXDictionary::dictionaryWithEntries({{"Data", PXArray::arrayWithObjects({first, second})}});
  auto tracker = PXMake<PXMetricsTracker>();
  ASSERT_TRUE(tracker->restoreFromData(PXKeyedArchiver::archivedDataWithRootObject(PXValue(state))));
  ASSERT_EQ(tracker->metrics()->count(), 1u);
  EXPECT_EQ(pxkit::internal::findMetricForIdentifier(*tracker, "dup", {}, {})->value(), 1);
}

TEST_F(PXMetricsTrackerPersistenceTest, RestoringAnOverduePeriodCutsItAndStartsANewOne) {
  auto tracker = PXMake<PXMetricsTracker>();
  tracker->updateMetricValue(4, "counter");
  PXDate dayOne = tracker->metricsTimeBase();
  PXRef<PXData> blob = tracker->storeAsData();

  clock.advance(86400);  // the next day
  auto fresh = PXMake<PXMetricsTracker>();
  ASSERT_TRUE(fresh->restoreFromData(blob));
  ASSERT_EQ(fresh->paperCuts()->count(), 1u);
  PXRef<PXDictionary> cut = fresh->paperCuts()->objectAtIndex(0).dictionaryValue();
  EXPECT_EQ(cut->objectForKey("timestamp").doubleValue(), dayOne.timeIntervalSince1970());
  EXPECT_EQ(pxkit::internal::findMetricForIdentifier(*fresh, "counter", {}, {})->value(), 0)
      << "restored values start a new period";
  EXPECT_EQ(fresh->metricsTimeBase(), clock.now());

  // The new period is written down soon, from the main queue.
  ASSERT_TRUE(PXRunLoopUntil([&] {
    return static_cast<bool>(PXUserDefaults::standardUserDefaults()->dictionaryForKey("Metrics"));
  }));

  // The same blob on the same day continues the old period instead.
  clock.set(dayOne + 60);
  auto sameDay = PXMake<PXMetricsTracker>();
  ASSERT_TRUE(sameDay->restoreFromData(blob));
  EXPECT_EQ(sameDay->paperCuts()->count(), 0u);
  EXPECT_EQ(pxkit::internal::findMetricForIdentifier(*sameDay, "counter", {}, {})->value(), 4);
}

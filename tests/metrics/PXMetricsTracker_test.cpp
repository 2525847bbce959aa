// The tracker: its registry, recording on the metrics queue, the papercut
// record and the saved state, in a fresh home on the virtual clock.
#include <gtest/gtest.h>
#include <pxkit/foundation/PXObjectBlockObserver.h>
#include <pxkit/foundation/PXRuntime.h>
#include <pxkit/metrics/PXMetricsTracker.h>
#include <pxkit/net/PXJSONSerialization.h>
#include <pxkit/objects/PXClock.h>
#include <pxkit/objects/PXKeyedArchiver.h>
#include <pxkit/platform/PXBundle.h>
#include <pxkit/platform/PXCalendar.h>
#include <pxkit/platform/PXOperationQueue.h>
#include <pxkit/platform/PXPreferences.h>
#include <pxkit/platform/PXTimer.h>
#include <pxkit/platform/PXUserDefaults.h>
#include <pxkit/platform/PXUserDefaultsController.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <thread>
#include <vector>

#include "metrics/internal/PXMetricsTrackerInternal.h"
#include "support/PXLogCapture.h"
#include "support/PXLoopbackServer.h"
#include "support/PXRunLoopUntil.h"
#include "support/PXTempHome.h"

namespace {

using Strings = std::vector<std::string>;
constexpr double kBerlinSpringEve = 733521600;       // 2024-03-30 21:00 CET
constexpr double kBerlinSpringMidnight = 733532401;  // 2024-03-31 00:00:01 CET
constexpr double kBerlinAfterSpring = 733615201;     // 2024-04-01 00:00:01 CEST (after a 23-hour day)
constexpr double kNoon = 700056000;  // 2023-03-09 12:00:00 UTC: a few hours on stay on the same date

void storeSystemID(const PXValue& id) {
  PXPreferences::setValue("MetricsRandomSystemID", id, kPXPreferencesCurrentApplication,
                          kPXPreferencesCurrentUser, kPXPreferencesCurrentHost);
}

Strings keysOf(const PXDictionary& dictionary) {
  Strings keys;
  for (const auto& [key, value] : dictionary) keys.emplace_back(key.stringValue());
  return keys;
}

// Every metric of `tracker` in registry order, "identifier(primary,secondary)=value " ("-": absent).
std::string valuesOf(const PXMetricsTracker& tracker) {
  std::string text;
  PXRef<PXArray> all = tracker.metrics();
  for (const PXValue& v : *all) {
    PXRef<PXMetric> m = PXDynamicCast<PXMetric>(v.objectValue());
    auto shown = [](const PXString& q) { return q ? q.str() : "-"; };
    text += m->identifier().str() + "(" + shown(m->primary()) + "," + shown(m->secondary()) +
            ")=" + std::to_string(m->value()) + " ";
  }
  return text;
}

class PXMetricsTrackerTest : public testing::Test {
 protected:
  void SetUp() override {
    useZone("UTC");
    ASSERT_TRUE(PXBundle::setMainBundleIdentity("org.pxkit.TrackerTest", "3.1", "310"));
    storeSystemID("FIXED-SYSTEM-ID");
    tracker = PXMake<PXMetricsTracker>();
  }

  PXRef<PXMetric> metric(const PXString& identifier, const PXString& primary = {},
                         const PXString& secondary = {}) {
    return pxkit::internal::findMetricForIdentifier(*tracker, identifier, primary, secondary);
  }
  static void useZone(const char* zone) {
    setenv("TZ", zone, 1);
    PXCalendar::resetTimeZone();
  }
  // Keeps the queue's worker busy until release(): what is recorded meanwhile waits in one batch.
  void holdWorker() {
    tracker->performMetricsOperation([this] {
      held = true;
      while (!released) std::this_thread::yield();
    });
    while (!held) std::this_thread::yield();
  }
  void release() {
    released = true;
    tracker->settleOutstandingOperationsWithOperationSync();
  }
  static PXRef<PXDictionary> papercut(const PXString& id, double since1970, const PXString& metricID = "m") {
    auto set = PXMutableDictionary::dictionary();
    set->setObject(1, "value");
    if (metricID) set->setObject(metricID, "identifier");
    return PXDictionary::dictionaryWithEntries(
        {{"packageID", id}, {"metrics", PXArray::arrayWithObjects({set})}, {"timestamp", since1970}});
  }

  PXTempHome home;
  PXScopedVirtualClock clock{PXDate(kNoon)};
  PXRef<PXMetricsTracker> tracker;
  std::atomic<bool> held{false}, released{false};
};

// Submission against a real HTTP server in the test process.
class PXMetricsTrackerSubmissionTest : public PXMetricsTrackerTest {
 protected:
  void SetUp() override {
    PXMetricsTrackerTest::SetUp();
    tracker->setLastAutoSubmissionDate(PXDate(kNoon - 3 * 86400));
    tracker->setMetricsPostURL(server.url("/metrics/post"));
  }
  // Stores `count` papercuts, a second apart, and saves the state.
  Strings storePapercuts(int count, double from = kNoon - 7200) {
    for (int i = 0; i < count; ++i) {
      tracker->metricForIdentifier("com.example.clicks")->setValue(i + 1);
      tracker->settleOutstandingOperationsWithOperationSync(
          [&] { tracker->makePaperCutWithTimestamp(PXDate(from + i)); });
    }
    tracker->saveToPreferences();
    return idsOf(*tracker->paperCuts());
  }
  static Strings idsOf(const PXArray& cuts) {
    Strings ids;
    for (const PXValue& cut : cuts)
      ids.emplace_back(cut.dictionaryValue()->objectForKey("packageID").stringValue());
    return ids;
  }
  // `body` with $* replaced by the quoted IDs, $<n> by the nth of them.
  static std::string answer(std::string body, const Strings& ids) {
    std::string all;
    for (const std::string& id : ids) all += (all.empty() ? "\"" : ",\"") + id + "\"";
    for (size_t at; (at = body.find('$')) != std::string::npos;)
      body.replace(at, 2, body[at + 1] == '*' ? all : ids.at(body[at + 1] - '0'));
    return body;
  }
  // Runs the main run loop until every main-queue operation enqueued so far has run.
  static void drainMainQueue() {
    bool drained = false;
    PXOperationQueue::mainQueue()->addOperationWithBlock([&] { drained = true; });
    ASSERT_TRUE(PXRunLoopUntil([&] { return drained; }));
  }
  // One submission, to its end (handler called), then the save it enqueued.
  bool submitAndWait() {
    bool finished = false;
    tracker->submitDataWithResponseHandler([&](auto...) { finished = true; }, PXDate(kNoon));
    bool ended = PXRunLoopUntil([&] { return finished; });
    drainMainQueue();
    return ended;
  }
  // The papercuts in the preferences file, read afresh through a tracker of its own.
  Strings idsOnDisk() {
    PXRef<PXDictionary> all =
        PXPreferences::copyAppValue("Metrics", "org.pxkit.TrackerTest").dictionaryValue();
    auto reader = PXMake<PXMetricsTracker>();
    if (!all || !reader->restoreFromData(all->objectForKey("FIXED-SYSTEM-ID").dataValue())) return {"(none)"};
    return idsOf(*reader->paperCuts());
  }
  size_t posts() const { return server.requests().size(); }

  PXLoopbackServer server;
};

constexpr const char* kReceipt = R"({"other":1,"processedPapercutPackageIDs":[$*]})";

}  // namespace

TEST_F(PXMetricsTrackerTest, RegistryKeepsOrderAndNeverReplacesAnExistingMetric) {
  auto first = PXMake<PXMetric>();
  first->setIdentifier("x");
  first->setPrimary("");
  auto twin = PXMake<PXMetric>();
  twin->setIdentifier("x");
  EXPECT_TRUE(tracker->addMetric(first));
  EXPECT_FALSE(tracker->addMetric(twin)) << "same unified ID: an empty and an absent qualifier are the same";
  EXPECT_FALSE(tracker->addMetric({}));
  EXPECT_EQ(tracker->metricForIdentifier("x", {}, {}), first);
  PXString unified;
  EXPECT_FALSE(pxkit::internal::findMetricForIdentifier(*tracker, "y", "p", {}, &unified));
  EXPECT_EQ(unified, "{y}-{p}-{}") << "the unified ID is written even when nothing is found";
  EXPECT_EQ(pxkit::internal::unifiedIDForIdentifier({}, "", {}), "{(null)}-{}-{}");
  for (const char* name : {"c", "a", "b"}) tracker->metricForIdentifier(name);
  EXPECT_EQ(valuesOf(*tracker), "x(,-)=0 c(-,-)=0 a(-,-)=0 b(-,-)=0 ");
  tracker->removeMetric(first);
  tracker->removeMetric({});
  EXPECT_EQ(valuesOf(*tracker), "c(-,-)=0 a(-,-)=0 b(-,-)=0 ");
}

TEST_F(PXMetricsTrackerTest, RecordingRunsInCallOrderOnTheQueueAndAnOperationSplitsABatch) {
  // All of it waits in one batch; the operation in it sees the recordings before it, none after.
  const std::string huge(20000, 'h');  // an identity longer than a block of the batch
  holdWorker();
  EXPECT_FALSE(tracker->monitor().try_lock()) << "a job on the queue holds the tracker's monitor";
  std::vector<int32_t> seen;
  tracker->updateMetricValue(5, "ordered");
  tracker->performMetricsOperation([&] { seen.push_back(metric("ordered")->value()); });
  tracker->setFixedValue(100, "ordered");
  tracker->updateMetricValue(-1, "ordered");
  tracker->startOrContinueUsageWithAutostopAfterInterval(0, "usage", "editor");
  for (int i = 0; i < 3; ++i) tracker->updateMetricValue(1, huge, huge);
  release();
  tracker->setEnabled(false);  // recording while disabled leaves no trace
  tracker->updateMetricValue(1, "dropped");
  tracker->setFixedValue(1, "dropped.fixed");
  tracker->startOrContinueUsageWithAutostopAfterInterval(10, "dropped.usage");
  tracker->setEnabled(true);
  clock.advance(42.5);
  tracker->stopUsageForIdentifier("usage", "editor");
  tracker->settleOutstandingOperationsWithOperationSync([&] {
    metric("usage", "editor")->computeMetric();
    seen.push_back(metric("usage", "editor")->value());
  });
  EXPECT_EQ(seen, (std::vector<int32_t>{5, 42})) << "the settle callback runs after every earlier operation";
  EXPECT_EQ(valuesOf(*tracker), "ordered(-,-)=99 usage(editor,-)=42 " + huge + "(" + huge + ",-)=3 ");
  tracker->performMetricsOperation({});  // an empty operation is ignored
  tracker->settleOutstandingOperationsWithOperationSync();
}

TEST_F(PXMetricsTrackerTest, AMetricRemovedWhileABatchIsAppliedIsNotUpdatedAgain) {
  // An observer removes the metric at its first change, mid-batch: the next recording makes a new one.
  PXRef<PXMetric> first = tracker->metricForIdentifier("removed");
  PXObjectBlockObserver::addObserverForKeyPath(
      *first, "value", 0, nullptr,
      [this](PXObject* observed, const PXString&, const PXDictionary&, PXObject*) {
        tracker->removeMetric(PXRef<PXMetric>(static_cast<PXMetric*>(observed)));
      });
  holdWorker();
  tracker->updateMetricValue(1, "removed");
  tracker->updateMetricValue(10, "removed");
  release();
  EXPECT_EQ(first->value(), 1);
  EXPECT_EQ(valuesOf(*tracker), "removed(-,-)=10 ") << "a new metric";
}

TEST_F(PXMetricsTrackerTest, ConcurrentRecordingIsExactAfterSettling) {
  // Thread t records name i%3 with qualifier (i+t)%4: every identity is hit by every thread.
  constexpr int kThreads = 8, kCalls = 1000000;
  const PXString names[] = {"shared.a", "shared.b", "shared.c"};
  const PXString qualifiers[] = {PXString(), "q1", "q2", "q3"};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kCalls; ++i) tracker->updateMetricValue(1, names[i % 3], qualifiers[(i + t) % 4]);
    });
  }
  for (auto& thread : threads) thread.join();
  tracker->settleOutstandingOperationsWithOperationSync();
  int64_t total = 0;
  PXRef<PXArray> all = tracker->metrics();
  for (const PXValue& v : *all) total += PXDynamicCast<PXMetric>(v.objectValue())->value();
  EXPECT_EQ(total, int64_t{kThreads} * kCalls);
  EXPECT_EQ(tracker->metrics()->count(), 12u);
  EXPECT_EQ(metric("shared.a", "q1")->value(), 666668) << "the calls with i%3 == 0 and (i+t)%4 == 1";
}

// A started tracker observes the opt-out key on the shared controller and its values; both end with it.
TEST_F(PXMetricsTrackerTest, AReleasedTrackerLeavesNoObserverBehind) {
  PXUserDefaultsController* controller = PXUserDefaultsController::sharedUserDefaultsController();
  const PXObject* owner = tracker.get();
  auto observations = [&] {
    size_t count = 0;
    for (const PXObject* observed : {static_cast<PXObject*>(controller), controller->values().get()}) {
      PXRef<PXArray> list =
          PXRuntime::getAssociatedObjectForKey(*observed, kPXObjectBlockObserverArrayKey).arrayValue();
      if (!list) continue;
      for (const PXValue& entry : *list) {
        auto* trampoline = dynamic_cast<PXObjectBlockObserverTrampoline*>(entry.objectPointer());
        count += trampoline && trampoline->owner() == owner && trampoline->isObserving();
      }
    }
    return count;
  };
  tracker->start();
  EXPECT_EQ(observations(), 2u);
  tracker = nullptr;
  EXPECT_EQ(observations(), 0u);
}

TEST_F(PXMetricsTrackerTest, TotalUsageDaysRoundAtHalfADay) {
  const PXDate origin = tracker->metricsOriginTime();
  // Tenths beyond 32 bits are clamped, and the rounding cannot overflow.
  const std::pair<double, int32_t> rows[] = {{0, 0},       {0.49, 0},        {1.49, 1},
                                             {1.5, 2},     {-0.6, 0},        {-1.6, -1},
                                             {365.5, 366}, {1e9, 214748365}, {-1e9, -214748364}};
  for (auto [days, expected] : rows)
    EXPECT_EQ(tracker->totalUsageDaysUntil(origin + days * 86400.0), expected) << days;
  clock.advance(2.5 * 86400);
  EXPECT_EQ(tracker->totalUsageDaysUntil(), 3) << "no date means now";
}

TEST_F(PXMetricsTrackerTest, PapercutRecordHasItsKeysInOrderUpToTheFirstMissingHostValue) {
  tracker->setChannel(kPXMetricsChannelRetail);
  tracker->metricForIdentifier("with.qualifiers", "p", "s")->setValue(3);
  tracker->metricForIdentifier("plain")->setValue(-2);
  clock.advance(1.5 * 86400);
  auto cutAt = [&](double at) {
    return pxkit::internal::papercutDictWithTimestamp(*tracker, PXDate(at), false);
  };
  PXRef<PXMutableDictionary> cut = cutAt(kNoon);
  EXPECT_EQ(PXJSONSerialization::JSONify(cut).str(),
            R"({"packageID":"9c9907a407b6cc5316a6306a5bc38742","applicationID":"org.pxkit.TrackerTest",)"
            R"("metrics":[{"identifier":"with.qualifiers","primary":"p","secondary":"s","value":3},)"
            R"({"identifier":"plain","value":-2}],"totalUsageDays":0,"timestamp":1678363200,)"
            R"("channel":"retail","applicationVersion":"3.1"})");
  // The package ID is the MD5 of the system ID followed by the timestamp as %f:
  // a microsecond apart is another package, the same moment the same one.
  EXPECT_EQ(cutAt(kNoon + 1e-6)->objectForKey("packageID").stringValue(), "466cb00b0ee88ae0ac04cddb307feaf8");
  EXPECT_EQ(cutAt(kNoon)->objectForKey("packageID"), cut->objectForKey("packageID"));
  // No channel is "default"; the record stops at the first missing host value.
  ASSERT_TRUE(PXBundle::setMainBundleIdentity("org.pxkit.NoVersion", {}, {}));
  tracker->setChannel({});
  cut = cutAt(kNoon);
  EXPECT_EQ(keysOf(*cut),
            (Strings{"packageID", "applicationID", "metrics", "totalUsageDays", "timestamp", "channel"}));
  EXPECT_EQ(cut->objectForKey("channel").stringValue(), "default");
  EXPECT_EQ(pxkit::internal::md5ChecksumOfString("\xc3\xa9t\xc3\xa9"), "deaf6a1e9612a4d8c221e68ee23d58d2");
  EXPECT_TRUE(pxkit::internal::md5ChecksumOfString({}).isAbsent());
}

TEST_F(PXMetricsTrackerTest, CompilingReportsDueMetricsAndResetsEveryOne) {
  auto make = [&](const char* identifier, const PXString& primary, int32_t value, double frequency) {
    PXRef<PXMetric> m = tracker->metricForIdentifier(identifier, primary, {});
    m->setValue(value);
    m->setSubmissionFrequency(frequency);
    return m;
  };
  make("zero", {}, 0, 0);
  make("due", {}, 5, 0);
  PXRef<PXMetric> throttled = make("throttled", {}, 9, 86400);
  make("shared", "a", 1, 0);
  make("shared", "b", 1, 86400);  // one identifier, one throttle: sent with "a" a minute ago
  PXRef<PXMetric> fixed = tracker->metricForIdentifier("fixed", {}, {}, 1);
  tracker->setLastPaperCutDateByMetricID(PXDictionary::dictionaryWithEntries(
      {{"throttled", PXDate(kNoon - 23 * 3600)}, {"shared", PXDate(kNoon - 60)}}));
  auto reported = [&] {
    Strings names;
    PXRef<PXArray> sets =
        tracker->paperCuts()->lastObject().dictionaryValue()->objectForKey("metrics").arrayValue();
    for (const PXValue& set : *sets)
      names.emplace_back(set.dictionaryValue()->objectForKey("identifier").stringValue());
    return names;
  };
  tracker->makePaperCutWithTimestamp(tracker->metricsTimeBase());
  ASSERT_EQ(tracker->paperCuts()->count(), 1u);
  EXPECT_EQ(reported(), (Strings{"due", "shared", "fixed"}))
      << "zero values are omitted; a metric sent 23 h ago with a daily frequency waits";
  EXPECT_EQ(throttled->value(), 0) << "throttled metrics are reset all the same";
  EXPECT_EQ(fixed->value(), 1) << "a fixed value survives the reset";
  EXPECT_EQ(tracker->metricsTimeBase(), clock.now());
  // Exactly 86400 s after the recorded date the metric is reported again.
  throttled->setValue(2);
  clock.set(PXDate(kNoon + 3600));
  tracker->makePaperCutWithTimestamp(tracker->metricsTimeBase());
  EXPECT_EQ(reported(), (Strings{"throttled"})) << "the fixed value is throttled now that it was sent";
}

TEST_F(PXMetricsTrackerTest, StoredPapercutsNeedTheirPartsAndRecordedDatesNeverMoveBackwards) {
  pxkit::internal::addPapercut(*tracker, {});
  pxkit::internal::addPapercut(
      *tracker, PXDictionary::dictionaryWithEntries({{"metrics", PXArray::array()}, {"timestamp", 1.0}}));
  pxkit::internal::addPapercut(*tracker, PXDictionary::dictionaryWithEntries({{"packageID", "x"}}));
  EXPECT_EQ(tracker->paperCuts()->count(), 0u);
  pxkit::internal::addPapercut(*tracker, papercut("a", 2000));
  pxkit::internal::addPapercut(*tracker, papercut("b", 1000));
  pxkit::internal::addPapercut(*tracker,
                               papercut("c", 3000, {}));  // a data set without identifier records nothing
  EXPECT_EQ(tracker->paperCuts()->count(), 3u);
  EXPECT_EQ(keysOf(*tracker->lastPaperCutDateByMetricID()), Strings{"m"});
  EXPECT_EQ(tracker->lastPaperCutDateByMetricID()->objectForKey("m").dateValue(),
            PXDate::dateWithTimeIntervalSince1970(2000));
}

TEST_F(PXMetricsTrackerTest, AutomaticPapercutIsDueWhenTheLocalDateChanges) {
  struct Row {
    const char* zone;
    double base, later;  // seconds after kNoon
    bool due;
  };
  for (Row row : {Row{"UTC", 0, 11 * 3600 + 59 * 60, false}, Row{"UTC", -12 * 3600, 11 * 3600 - 1, false},
                  Row{"UTC", 0, 12 * 3600 + 1, true},
                  Row{"UTC", 0, 31 * 86400.0, true},   // the same day of another month
                  Row{"UTC", 0, 366 * 86400.0, true},  // the same day and month of another year
                  Row{"America/New_York", -7 * 3600 + 1, -6 * 3600 + 1, false},  // 00:00:01 → 01:00:01 EST
                  Row{"America/New_York", -7 * 3600 - 1, -7 * 3600 + 1, true},   // 23:59:59 → 00:00:01 EST
                  Row{"Asia/Tokyo", 0, 3 * 3600, true},
                  // Before the common era and before 1970; beyond any calendar served.
                  Row{"America/New_York", -7e10, 0, true}, Row{"UTC", 5e11, 0, true}}) {  // 21:00 → 00:00 JST
    useZone(row.zone);
    tracker->setMetricsTimeBase(PXDate(kNoon + row.base));
    clock.set(PXDate(kNoon + row.later));
    EXPECT_EQ(tracker->shouldPerformAutomaticPapercut(), row.due)
        << row.zone << " " << row.base << " " << row.later;
  }
}

TEST_F(PXMetricsTrackerTest, SaveThenLoadInAFreshTrackerBringsTheStateBack) {
  const PXDate origin = tracker->metricsOriginTime();
  tracker->updateMetricValue(7, "counter", "p", "s");
  tracker->startOrContinueUsageWithAutostopAfterInterval(0, "usage");
  tracker->setFixedValue(1, "fixed");
  tracker->setUserData(PXDictionary::dictionaryWithEntries({{"theme", "blue"}}));
  pxkit::internal::addPapercut(*tracker, papercut("abc", kNoon + kPXTimeIntervalSince1970 - 86400, "old"));
  tracker->settleOutstandingOperationsWithOperationSync();  // usage starts now, not later
  clock.advance(30.9);
  // The state of another system in the same preferences stays as it is.
  PXUserDefaults* defaults = PXUserDefaults::standardUserDefaults();
  const PXValue foreign(PXData::dataWithString("someone else's state"));
  defaults->setObject(PXDictionary::dictionaryWithEntries({{"OTHER-SYSTEM", foreign}}), "Metrics");
  // A dead writer's temporaries beside the file go at the save; other names stay.
  const std::string file = home.configHome() + "/org.pxkit.TrackerTest/org.pxkit.TrackerTest.plist";
  const Strings names = {".Ab9zZ0", ".ab-12x", ".AbC1234", "-Ab9zZ0"};
  for (const std::string& name : names) home.writeFile(file + name, "partial");
  tracker->saveToPreferences();
  for (const std::string& name : names)
    EXPECT_EQ(std::filesystem::exists(file + name), name != ".Ab9zZ0") << name;
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
  EXPECT_EQ(valuesOf(*fresh), "counter(p,s)=7 usage(-,-)=30 ") << "no fixed value: they are rebuilt";
}

TEST_F(PXMetricsTrackerTest, BlobKeysFollowTheStoredOrderAndStopAtTheFirstAbsentValue) {
  tracker->updateMetricValue(1, "m");
  auto keys = [&] {
    return keysOf(*PXKeyedUnarchiver::unarchiveObjectWithData(tracker->storeAsData()).dictionaryValue());
  };
  const Strings head = {"TimeBase", "OriginTime", "Data", "Storage"};
  Strings all = head;
  all.insert(all.end(), {"PaperCuts", "LastPaperCutDateByMetricID", "SavedStatePaperCut"});
  EXPECT_EQ(keys(), all) << "never submitted: no LastAutoSubmissionDate";
  tracker->setLastAutoSubmissionDate(PXDate(kNoon - 10));
  all.push_back("LastAutoSubmissionDate");
  EXPECT_EQ(keys(), all);
  tracker->setPaperCuts({});
  EXPECT_EQ(keys(), head) << "an absent value drops its key and every key after it";
  EXPECT_EQ(metric("m")->value(), 1) << "the saved-state papercut is a preview: making it reset nothing";
}

TEST_F(PXMetricsTrackerTest, BadBlobsGiveAFreshStateAndDuplicatesRestoreOnlyTheFirst) {
  const PXDate start = tracker->metricsTimeBase();
  auto archived = [](const PXValue& root) { return PXKeyedArchiver::archivedDataWithRootObject(root); };
  for (const PXRef<PXData>& bad :
       {PXRef<PXData>(), PXData::dataWithString("not an archive"), archived("a string root")})
    EXPECT_FALSE(tracker->restoreFromData(bad));
  EXPECT_EQ(tracker->metricsTimeBase(), start);
  // A dictionary with two metrics of one unified ID restores the first, with now for the dates.
  PXRef<PXMetric> twins[2] = {PXMake<PXMetric>(), PXMake<PXMetric>()};
  for (int i : {0, 1}) {
    twins[i]->setIdentifier("dup");
    twins[i]->setPrimary(i ? "" : PXString());
    twins[i]->setValue(i + 1);
  }
  clock.advance(5);
  ASSERT_TRUE(tracker->restoreFromData(archived(
      PXDictionary::dictionaryWithEntries({{"Data", PXArray::arrayWithObjects({twins[0], twins[1]})}}))));
  EXPECT_EQ(tracker->metricsTimeBase(), clock.now());
  EXPECT_EQ(tracker->paperCuts()->count(), 0u);
  EXPECT_EQ(valuesOf(*tracker), "dup(-,-)=1 ");
}

TEST_F(PXMetricsTrackerTest, RestoringAnOverduePeriodCutsItAndStartsANewOne) {
  tracker->updateMetricValue(4, "counter");
  const PXDate dayOne = tracker->metricsTimeBase();
  PXRef<PXData> blob = tracker->storeAsData();
  clock.advance(86400);  // the next day
  auto fresh = PXMake<PXMetricsTracker>();
  ASSERT_TRUE(fresh->restoreFromData(blob));
  ASSERT_EQ(fresh->paperCuts()->count(), 1u);
  EXPECT_EQ(fresh->paperCuts()->objectAtIndex(0).dictionaryValue()->objectForKey("timestamp").doubleValue(),
            dayOne.timeIntervalSince1970());
  EXPECT_EQ(valuesOf(*fresh), "counter(-,-)=0 ") << "restored values start a new period";
  EXPECT_EQ(fresh->metricsTimeBase(), clock.now());
  // The new period is written down soon, from the main queue.
  ASSERT_TRUE(PXRunLoopUntil(
      [] { return bool(PXUserDefaults::standardUserDefaults()->dictionaryForKey("Metrics")); }));
}

TEST_F(PXMetricsTrackerSubmissionTest, EachAnswerLeavesExactlyTheUnconfirmedPapercuts) {
  struct Case {
    const char* name;
    int status;  // 0: the connection is reset before the answer; 307: to the endpoint, which confirms all
    const char* body;
    std::vector<size_t> remaining;  // indexes of the four stored papercuts left afterwards
    bool dateRecorded;
  };
  const std::vector<size_t> all{0, 1, 2, 3};
  const Case cases[] = {
      {"500 with a receipt", 500, kReceipt, all, false},
      {"empty body", 200, "", all, true},
      {"not JSON", 200, "<html>thanks</html>", all, true},
      {"a JSON array", 200, R"(["$0"])", all, true},
      {"404", 404, kReceipt, all, false},
      {"unknown IDs", 200, R"({"processedPapercutPackageIDs":["feed","0123456789abcdef"]})", all, true},
      {"half of them", 200, R"({"other":1,"processedPapercutPackageIDs":["$2","$0"]})", {1, 3}, true},
      {"IDs as numbers", 200, R"({"processedPapercutPackageIDs":[0,1,2,3]})", all, true},
      {"no IDs", 200, R"({"other":1})", all, true},
      {"reset before the answer", 0, "", all, false},
      {"307 to the endpoint", 307, kReceipt, {}, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    tracker->setPaperCuts(PXArray::array());
    const PXDate before(kNoon - 3 * 86400);
    tracker->setLastAutoSubmissionDate(before);
    const Strings ids = storePapercuts(4);
    ASSERT_EQ(ids.size(), 4u);
    PXLoopbackServer::Response response(answer(c.body, ids), c.status == 307 ? 200 : c.status);
    server.handle("/metrics/post", [response](const auto&) { return response; });
    server.handle("/moved", [&](const auto&) {
      return PXLoopbackServer::Response("", 307).header("Location", server.url("/metrics/post"));
    });
    server.handleRaw("/reset", PXLoopbackServer::RawResponse("", PXLoopbackServer::RawEnding::Reset));
    tracker->setMetricsPostURL(c.status == 0     ? server.rawURL("/reset")
                               : c.status == 307 ? server.url("/moved")
                                                 : server.url("/metrics/post"));
    ASSERT_TRUE(submitAndWait());
    Strings expected;
    for (size_t index : c.remaining) expected.push_back(ids[index]);
    EXPECT_EQ(idsOf(*tracker->paperCuts()), expected);
    EXPECT_EQ(idsOnDisk(), expected) << "the state on disk is the state in memory";
    EXPECT_EQ(tracker->lastAutoSubmissionDate(), c.dateRecorded ? PXDate(kNoon) : before);
  }
  EXPECT_EQ(server.requests().back().header("Content-Type"), "application/json");
}

TEST_F(PXMetricsTrackerSubmissionTest, OneSubmissionADayAndOnlyOneInFlight) {
  Strings ids = storePapercuts(2);
  server.handle("/metrics/post",
                [ids](const auto&) { return PXLoopbackServer::Response(answer(kReceipt, ids)); });
  tracker->start();                                                      // a trigger
  tracker->considerAutoSubmissionWithSubmissionDate(PXDate(kNoon + 1));  // and another at once
  ASSERT_TRUE(PXRunLoopUntil([&] { return tracker->paperCuts()->count() == 0; }));
  drainMainQueue();
  EXPECT_EQ(posts(), 1u);
  EXPECT_EQ(tracker->lastAutoSubmissionDate(), PXDate(kNoon - 60)) << "no date: a minute before the call";

  // Within the day nothing goes, however much is stored.
  storePapercuts(1, kNoon + 10);
  clock.advance(86339);  // 86399 s after the recorded date
  tracker->considerAutoSubmissionWithSubmissionDate();
  drainMainQueue();
  EXPECT_EQ(posts(), 1u);
  clock.advance(1);
  tracker->considerAutoSubmissionWithSubmissionDate();
  ASSERT_TRUE(PXRunLoopUntil([&] { return posts() == 2; }));
}

TEST_F(PXMetricsTrackerSubmissionTest, NothingGoesWhenNothingIsStoredOrTheStoreIsNotJSON) {
  bool called = false;
  tracker->submitDataWithResponseHandler([&](auto...) { called = true; });
  drainMainQueue();
  // A store that JSON cannot hold is logged and kept.
  storePapercuts(1);
  auto odd = PXMutableDictionary::dictionary();
  odd->setObject(PXDate(kNoon), "packageID");  // a date: JSON cannot hold it
  odd->setObject(PXArray::arrayWithObjects({PXValue(1)}), "metrics");
  odd->setObject(PXValue(1.0), "timestamp");
  pxkit::internal::addPapercut(*tracker, odd);
  ASSERT_EQ(tracker->paperCuts()->count(), 2u);
  PXLogCapture log;
  tracker->submitDataWithResponseHandler([&](auto...) { called = true; });
  drainMainQueue();
  EXPECT_TRUE(log.contains("Submission dictionary could not be packed as JSON"));
  EXPECT_EQ(tracker->paperCuts()->count(), 2u);
  EXPECT_FALSE(tracker->submissionRequest());
  EXPECT_EQ(posts(), 0u);
  EXPECT_FALSE(called);
}

TEST_F(PXMetricsTrackerSubmissionTest, OptedOutTrackerRecordsAndSendsNothingUntilSwitchedBack) {
  storePapercuts(2);
  PXUserDefaults* defaults = PXUserDefaults::standardUserDefaults();
  defaults->setBool(true, kPXMetricsPreferencesDisabledKey);
  tracker->start();
  EXPECT_TRUE(tracker->autoSubmissionEnabled());
  tracker->updateMetricValue(5, "com.example.while.off");
  tracker->considerAutoSubmissionWithSubmissionDate();
  tracker->settleOutstandingOperationsWithOperationSync();
  drainMainQueue();
  EXPECT_EQ(posts(), 0u);
  EXPECT_FALSE(tracker->enabled());
  EXPECT_FALSE(pxkit::internal::findMetricForIdentifier(*tracker, "com.example.while.off", {}, {}));
  // Switching back is a trigger of its own: the overdue submission goes at once.
  defaults->setBool(false, kPXMetricsPreferencesDisabledKey);
  ASSERT_TRUE(PXRunLoopUntil([&] { return posts() == 1; }));
  defaults->removeObjectForKey(kPXMetricsPreferencesDisabledKey);
  EXPECT_TRUE(tracker->enabled()) << "absent means not disabled";
}

TEST_F(PXMetricsTrackerSubmissionTest, PapercutCutInFlightSurvivesTheEarlierReceipt) {
  Strings ids = storePapercuts(3);
  server.handle("/metrics/post",
                [ids](const auto&) { return PXLoopbackServer::Response(answer(kReceipt, ids)); });
  bool finished = false;
  tracker->submitDataWithResponseHandler([&](auto...) { finished = true; }, PXDate(kNoon));
  ASSERT_TRUE(PXRunLoopUntil([&] { return bool(tracker->submissionRequest()); }));
  tracker->submitDataWithResponseHandler([&](auto...) { ADD_FAILURE() << "a second submission in flight"; });
  // The request is running; its completion waits for this thread's run loop.
  tracker->metricForIdentifier("com.example.late")->setValue(9);
  tracker->settleOutstandingOperationsWithOperationSync(
      [&] { tracker->makePaperCutWithTimestamp(PXDate(kNoon)); });
  Strings late = idsOf(*tracker->paperCuts());
  ASSERT_EQ(late.size(), 4u);
  ASSERT_TRUE(PXRunLoopUntil([&] { return finished; }));
  drainMainQueue();
  EXPECT_EQ(idsOf(*tracker->paperCuts()), Strings{late[3]});
  EXPECT_EQ(idsOnDisk(), Strings{late[3]});
  EXPECT_FALSE(tracker->submissionRequest());
}

TEST_F(PXMetricsTrackerTest, NextFireDateIsTheFollowingLocalDayAt00_00_01AndRearmingReplacesTheTimer) {
  struct Row {
    const char* zone;
    double now, expected;  // seconds since 2001
  };
  for (Row row : {Row{"Europe/Berlin", kBerlinSpringEve, kBerlinSpringMidnight},
                  Row{"Europe/Berlin", kBerlinSpringMidnight, kBerlinAfterSpring},
                  Row{"Europe/Berlin", 733579200, kBerlinAfterSpring},  // 2024-03-31 14:00 CEST
                  Row{"Europe/Berlin", 751672801, 751762801},           // 10-27 00:00:01 CEST, a 25-hour day
                  Row{"America/New_York", 752299201, 752389201},        // 11-03 00:00:01 EDT
                  Row{"America/New_York", 731700000, 731739601},        // 03-09 13:00 EST
                  Row{"America/New_York", 731739601, 731822401}}) {     // 03-10 00:00:01 EST
    useZone(row.zone);
    clock.set(PXDate(row.now));
    tracker = PXMake<PXMetricsTracker>();
    tracker->considerAutomaticPapercutWithSchedule(/*schedule=*/true);
    ASSERT_TRUE(PXRunLoopUntil([&] { return tracker->automaticPapercutTimer() != nullptr; }));
    PXRef<PXTimer> timer = tracker->automaticPapercutTimer();
    EXPECT_EQ(timer->fireDate(), PXDate(row.expected)) << row.zone << " at " << row.now;
    EXPECT_FALSE(timer->repeats());
    // Arming again replaces the timer: exactly one is armed at a time.
    tracker->considerAutomaticPapercutWithSchedule(true);
    ASSERT_TRUE(PXRunLoopUntil([&] { return tracker->automaticPapercutTimer() != timer; }));
    EXPECT_FALSE(timer->isValid());
    EXPECT_EQ(tracker->automaticPapercutTimer()->fireDate(), PXDate(row.expected));
    tracker->automaticPapercutTimer()->invalidate();
  }
}

TEST_F(PXMetricsTrackerTest, AFailedSaveIsLoggedAndTheNextOneWritesTheState) {
  const std::string dir = home.configHome() + "/org.pxkit.TrackerTest";
  std::filesystem::remove_all(dir);
  home.writeFile(dir, "a file where the preferences directory goes");
  PXLogCapture log;
  tracker->saveToPreferences();
  const Strings lines = log.lines(PXLogLevel::Warning);
  EXPECT_TRUE(std::ranges::any_of(lines, [](const std::string& l) {
    return l.starts_with("PXMetricsTracker: cannot save the tracker's state: ");
  })) << testing::PrintToString(lines);
  std::filesystem::remove(dir);
  tracker->saveToPreferences();
  EXPECT_TRUE(std::filesystem::exists(dir + "/org.pxkit.TrackerTest.plist"));
}

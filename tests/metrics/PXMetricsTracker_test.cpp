#include <gtest/gtest.h>
#include <pxkit/foundation/PXObjectBlockObserver.h>
#include <pxkit/foundation/PXRuntime.h>
#include <pxkit/metrics/PXMetricsTracker.h>
#include <pxkit/objects/PXClock.h>
#include <pxkit/platform/PXBundle.h>
#include <pxkit/platform/PXPreferences.h>
#include <pxkit/platform/PXUserDefaultsController.h>

#include <cctype>
#include <thread>
#include <vector>

#include "metrics/internal/PXMetricsTrackerInternal.h"
#include "support/PXTempHome.h"

namespace {

// Every tracker test runs in a fresh home, as a known application, on the virtual clock.
class PXMetricsTrackerTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(PXBundle::setMainBundleIdentity("org.pxkit.TrackerTest", "1.2", "120"));
    tracker = PXMake<PXMetricsTracker>();
  }

  PXRef<PXMetric> metric(const PXString& identifier, const PXString& primary = {},
                         const PXString& secondary = {}) {
    return pxkit::internal::findMetricForIdentifier(*tracker, identifier, primary, secondary);
  }
  int32_t valueOf(const PXString& identifier, const PXString& primary = {}, const PXString& secondary = {}) {
    PXRef<PXMetric> m = metric(identifier, primary, secondary);
    return m ? m->value() : INT32_MIN;
  }

  PXTempHome home;
  PXScopedVirtualClock clock{PXDate(700000000)};
  PXRef<PXMetricsTracker> tracker;
};

}  // namespace

TEST(PXMetricsTrackerIdentity, UnifiedIDTreatsAbsentAndEmptyQualifiersAlike) {
  struct Row {
    PXString identifier, primary, secondary;
    const char* expected;
  };
  for (const Row& row : {Row{"a", {}, {}, "{a}-{}-{}"}, Row{"a", "", "", "{a}-{}-{}"},
                         Row{"a", "p", {}, "{a}-{p}-{}"}, Row{"a", {}, "s", "{a}-{}-{s}"},
                         Row{"common.hwmodel", "Book", "Book1,1", "{common.hwmodel}-{Book}-{Book1,1}"},
                         Row{{}, {}, {}, "{(null)}-{}-{}"}, Row{"", "", "", "{}-{}-{}"}}) {
    EXPECT_EQ(pxkit::internal::unifiedIDForIdentifier(row.identifier, row.primary, row.secondary),
              row.expected);
  }
}

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

  for (const char* name : {"c", "a", "b"}) tracker->metricForIdentifier(name);
  std::vector<std::string> names;
  PXRef<PXArray> all = tracker->metrics();
  for (const PXValue& v : *all) names.push_back(PXDynamicCast<PXMetric>(v.objectValue())->identifier().str());
  EXPECT_EQ(names, (std::vector<std::string>{"x", "c", "a", "b"}));
  tracker->removeMetric(first);
  EXPECT_FALSE(metric("x"));
  EXPECT_EQ(tracker->metrics()->count(), 3u);
}

TEST_F(PXMetricsTrackerTest, FixedValuesAndComputationBlocksTurnMetricsIntoDailyFacts) {
  PXRef<PXMetric> usage = tracker->metricForIdentifier("common.usage");
  usage->setValue(40);
  ASSERT_TRUE(usage->needsPersistentStorage());
  PXRef<PXMetric> fixed = tracker->metricForIdentifier("common.usage", {}, {}, 3);
  EXPECT_EQ(fixed, usage);
  EXPECT_EQ(fixed->value(), 3);
  EXPECT_FALSE(fixed->needsPersistentStorage());
  EXPECT_EQ(fixed->submissionFrequency(), 86400.0);

  int installs = 0;
  auto block = [&](PXMetric&, PXMetricComputePhase phase) {
    if (phase == PXMetricComputePhaseInstalled) ++installs;
    return true;
  };
  PXRef<PXMetric> m = tracker->metricForIdentifier("computed", {}, {}, block, false);
  EXPECT_EQ(installs, 1);
  EXPECT_FALSE(m->needsPersistentStorage());
  EXPECT_EQ(tracker->metricForIdentifier("computed", {}, {}, block, true), m);
  EXPECT_EQ(installs, 2) << "the block is replaced";
  EXPECT_TRUE(m->needsPersistentStorage());
}

TEST_F(PXMetricsTrackerTest, RecordingRunsInCallOrderOnTheQueue) {
  // Interleaved operations on one metric only give this result when run in order.
  tracker->updateMetricValue(5, "ordered");
  tracker->setFixedValue(100, "ordered");
  tracker->updateMetricValue(-1, "ordered");
  tracker->startOrContinueUsageWithAutostopAfterInterval(0, "usage", "editor");
  tracker->settleOutstandingOperationsWithOperationSync();
  EXPECT_EQ(valueOf("ordered"), 99);

  clock.advance(42.5);
  tracker->stopUsageForIdentifier("usage", "editor");
  std::vector<int> seen;
  tracker->settleOutstandingOperationsWithOperationSync([&] {
    PXRef<PXMetric> usage = metric("usage", "editor");
    usage->computeMetric();
    seen.push_back(usage->value());
  });
  EXPECT_EQ(seen, std::vector<int>{42}) << "the settle callback runs after every earlier operation";
}

TEST_F(PXMetricsTrackerTest, OperationsHoldTheTrackerLock) {
  // A job on the queue holds the tracker's monitor: another thread trying it
  // while the job runs must fail.
  std::atomic<bool> inside{false}, release{false};
  tracker->performMetricsOperation([&] {
    inside = true;
    while (!release) std::this_thread::yield();
  });
  while (!inside) std::this_thread::yield();
  EXPECT_FALSE(tracker->monitor().try_lock());
  release = true;
  tracker->settleOutstandingOperationsWithOperationSync();
  ASSERT_TRUE(tracker->monitor().try_lock());
  tracker->monitor().unlock();
  tracker->performMetricsOperation({});  // an empty operation is ignored
  tracker->settleOutstandingOperationsWithOperationSync();
}

TEST_F(PXMetricsTrackerTest, RecordingWhileDisabledLeavesNoTrace) {
  tracker->setEnabled(false);
  tracker->updateMetricValue(1, "dropped");
  tracker->setFixedValue(1, "dropped.fixed");
  tracker->startOrContinueUsageWithAutostopAfterInterval(10, "dropped.usage");
  tracker->setEnabled(true);
  tracker->updateMetricValue(2, "kept");
  tracker->settleOutstandingOperationsWithOperationSync();
  EXPECT_EQ(valueOf("kept"), 2);
  EXPECT_EQ(tracker->metrics()->count(), 1u);
}

TEST_F(PXMetricsTrackerTest, AReleasedTrackerLeavesNoObserverBehind) {
  // A started tracker observes the opt-out key on the shared user-defaults
  // controller and on its values object; both observations end with it.
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
  struct Row {
    double days;
    int32_t expected;
  };
  PXDate origin = tracker->metricsOriginTime();
  for (Row row :
       {Row{0, 0}, Row{0.49, 0}, Row{1.49, 1}, Row{1.5, 2}, Row{-0.6, 0}, Row{-1.6, -1}, Row{365.5, 366},
        // Tenths beyond 32 bits are clamped, and the rounding cannot overflow.
        Row{1e9, 214748365}, Row{-1e9, -214748364}}) {
    EXPECT_EQ(tracker->totalUsageDaysUntil(origin + row.days * 86400.0), row.expected) << row.days;
  }
  clock.advance(2.5 * 86400);
  EXPECT_EQ(tracker->totalUsageDaysUntil(), 3) << "no date means now";
}

TEST_F(PXMetricsTrackerTest, SystemIDIsStoredOnceAndRemadeWhenDeleted) {
  auto stored = [](PXValue value) {
    PXPreferences::setValue("MetricsRandomSystemID", value, kPXPreferencesCurrentApplication,
                            kPXPreferencesCurrentUser, kPXPreferencesCurrentHost);
  };
  PXString first = PXMetricsTracker::systemID();
  ASSERT_EQ(first.size(), 36u);
  for (size_t i = 0; i < first.size(); ++i) {
    const char c = first.view()[i];
    EXPECT_TRUE((i == 8 || i == 13 || i == 18 || i == 23) ? c == '-' : std::isxdigit(c) && !std::islower(c))
        << first.c_str();
  }
  EXPECT_EQ(PXMetricsTracker::systemID(), first);
  EXPECT_EQ(PXPreferences::copyValue("MetricsRandomSystemID", kPXPreferencesCurrentApplication,
                                     kPXPreferencesCurrentUser, kPXPreferencesCurrentHost)
                .stringValue(),
            first.view());
  stored(PXValue());
  PXString second = PXMetricsTracker::systemID();
  EXPECT_EQ(second.size(), 36u);
  EXPECT_NE(second, first);
  stored("not-a-uuid");
  EXPECT_EQ(PXMetricsTracker::systemID(), "not-a-uuid") << "whatever string is stored is used as it is";
}

TEST_F(PXMetricsTrackerTest, ConcurrentRecordingIsExactAfterSettling) {
  // 8 threads, 1,000,000 calls each, on identities that overlap between threads.
  constexpr int kThreads = 8;
  constexpr int kCallsPerThread = 1000000;
  const PXString names[] = {"shared.a", "shared.b", "shared.c"};
  const PXString qualifiers[] = {PXString(), "q1", "q2", "q3"};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kCallsPerThread; ++i) {
        // Thread t touches name i%3 with qualifier (i+t)%4: every identity is
        // hit by every thread.
        tracker->updateMetricValue(1, names[i % 3], qualifiers[(i + t) % 4]);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  tracker->settleOutstandingOperationsWithOperationSync();

  int64_t total = 0;
  PXRef<PXArray> all = tracker->metrics();
  for (const PXValue& v : *all) total += PXDynamicCast<PXMetric>(v.objectValue())->value();
  EXPECT_EQ(total, int64_t{kThreads} * kCallsPerThread);
  EXPECT_EQ(tracker->metrics()->count(), 12u);
  // Each thread's calls spread evenly: count the exact share of one identity.
  int64_t expected = 0;
  for (int t = 0; t < kThreads; ++t) {
    for (int i = 0; i < kCallsPerThread; ++i) expected += (i % 3 == 0 && (i + t) % 4 == 1);
  }
  EXPECT_EQ(valueOf("shared.a", "q1"), expected);
}

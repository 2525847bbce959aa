// Recordings travel to the metrics queue in batches: these tests hold the
// queue's worker in an operation so that every call below lands in a batch
// that has not started, then check what the batch does when applied.
#include <gtest/gtest.h>
#include <pxkit/foundation/PXObjectBlockObserver.h>
#include <pxkit/metrics/PXMetricsTracker.h>
#include <pxkit/platform/PXBundle.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "metrics/internal/PXMetricsTrackerInternal.h"
#include "support/PXTempHome.h"

namespace {

class PXMetricsTrackerRecordingTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(PXBundle::setMainBundleIdentity("org.pxkit.RecordingTest", "1.0", "1"));
    tracker = PXMake<PXMetricsTracker>();
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

  PXRef<PXMetric> metric(const PXString& identifier, const PXString& primary = {},
                         const PXString& secondary = {}) {
    return pxkit::internal::findMetricForIdentifier(*tracker, identifier, primary, secondary);
  }

  PXTempHome home;
  PXRef<PXMetricsTracker> tracker;
  std::atomic<bool> held{false}, released{false};
};

TEST_F(PXMetricsTrackerRecordingTest, AnOperationSplitsTheRecordingsAroundIt) {
  // Both recordings wait while the worker is held; the operation between them
  // must see the first applied and not the second.
  holdWorker();
  std::vector<int32_t> seen;
  tracker->updateMetricValue(1, "split");
  tracker->performMetricsOperation([&] { seen.push_back(metric("split")->value()); });
  tracker->updateMetricValue(10, "split");
  tracker->updateMetricValue(100, "split");
  release();
  tracker->settleOutstandingOperationsWithOperationSync([&] { seen.push_back(metric("split")->value()); });
  EXPECT_EQ(seen, (std::vector<int32_t>{1, 111}));
}

TEST_F(PXMetricsTrackerRecordingTest, AWaitingBatchKeepsEveryIdentityAndTheCallOrder) {
  // Enough calls to fill several blocks of the batch, identities longer than
  // a block among them, absent and empty qualifiers, all applied in order.
  const std::string huge(20000, 'h');
  struct Row {
    std::string_view identifier, primary, secondary;
  };
  const Row rows[] = {{"plain", {}, {}},      {"plain", "", ""},       {"qualified", "p", {}},
                      {"qualified", {}, "s"}, {"qualified", "p", "s"}, {"absent.first", {}, {}},
                      {"empty.first", "", {}}};
  constexpr int kRounds = 1000;
  holdWorker();
  for (int round = 0; round < kRounds; ++round) {
    for (const Row& row : rows) tracker->updateMetricValue(1, row.identifier, row.primary, row.secondary);
    if (round % 100 == 0) tracker->updateMetricValue(1, huge, huge);
    if (round == kRounds / 2) tracker->setFixedValue(-5, "fixed");
    tracker->updateMetricValue(1, "fixed");
  }
  release();

  EXPECT_EQ(tracker->metrics()->count(), 8u) << "an absent and an empty qualifier are one metric";
  EXPECT_EQ(metric("plain")->value(), 2 * kRounds);
  EXPECT_EQ(metric("qualified", "p")->value(), kRounds);
  EXPECT_EQ(metric("qualified", {}, "s")->value(), kRounds);
  EXPECT_EQ(metric("qualified", "p", "s")->value(), kRounds);
  EXPECT_EQ(metric(huge, huge)->value(), kRounds / 100);
  EXPECT_EQ(metric("fixed")->value(), -5 + kRounds / 2) << "applied in call order";
  // A new metric keeps its qualifiers as the first call gave them.
  EXPECT_FALSE(metric("absent.first")->primary());
  EXPECT_EQ(metric("empty.first")->primary(), "");
}

TEST_F(PXMetricsTrackerRecordingTest, AMetricRemovedWhileABatchIsAppliedIsNotUpdatedAgain) {
  // An observer removes the metric at its first change, in the middle of the
  // batch: the next recording of that identity makes a new metric.
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
  ASSERT_TRUE(metric("removed"));
  EXPECT_NE(metric("removed"), first);
  EXPECT_EQ(metric("removed")->value(), 10);
}

}  // namespace

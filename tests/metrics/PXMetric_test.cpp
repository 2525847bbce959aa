#include <gtest/gtest.h>
#include <pxkit/metrics/PXMetric.h>
#include <pxkit/objects/PXClock.h>
#include <pxkit/objects/PXKeyedArchiver.h>

#include <vector>

namespace {

// A script of usage calls at given moments on the kit's virtual clock.
struct Step {
  enum Op { Start, Stop, Compute, Update } op;
  double at;
  double arg = 0;
};

struct UsageCase {
  const char* name;
  std::vector<Step> steps;
  int32_t value;  // after the last step
  friend void PrintTo(const UsageCase& c, std::ostream* os) { *os << c.name; }
};

class PXMetricUsage : public testing::TestWithParam<UsageCase> {};

}  // namespace

TEST_P(PXMetricUsage, AccountsWholeSecondsUpToAutostop) {
  PXScopedVirtualClock clock(PXDate(0));
  PXRef<PXMetric> metric = PXMake<PXMetric>();
  for (const Step& step : GetParam().steps) {
    clock.set(PXDate(step.at));
    switch (step.op) {
      case Step::Start:
        metric->startOrContinueUsageWithAutostopAfterInterval(step.arg);
        break;
      case Step::Stop:
        metric->stopUsage();
        break;
      case Step::Compute:
        metric->computeMetric();
        break;
      case Step::Update:
        metric->updateValue(static_cast<int32_t>(step.arg));
        break;
    }
  }
  EXPECT_EQ(metric->value(), GetParam().value);
}

// A second compute shows whether usage was still running after the first.
INSTANTIATE_TEST_SUITE_P(
    Cases, PXMetricUsage,
    testing::Values(
        // Still running at the compute: the stretch so far counts, and usage goes on from then.
        UsageCase{
            "ComputeWhileRunning", {{Step::Start, 100, 10}, {Step::Compute, 105}, {Step::Compute, 107}}, 7},
        // Nothing until long after the autostop: clipped at 110, then idle.
        UsageCase{
            "ClippedAtAutostop", {{Step::Start, 100, 10}, {Step::Compute, 200}, {Step::Compute, 300}}, 10},
        // Restart at 108 re-arms the autostop from 108; the stop at 130 is clipped at 118.
        UsageCase{"RestartRearmsAutostop",
                  {{Step::Start, 100, 10}, {Step::Start, 108, 10}, {Step::Stop, 130}, {Step::Compute, 131}},
                  18},
        // The fraction of a second is dropped at each compute, and kept until then.
        UsageCase{"FractionDropped", {{Step::Start, 100, 0}, {Step::Stop, 100.7}, {Step::Compute, 101}}, 0},
        UsageCase{"FractionsAddUpBeforeACompute",
                  {{Step::Start, 100, 0},
                   {Step::Stop, 100.7},
                   {Step::Start, 101, 0},
                   {Step::Stop, 101.7},
                   {Step::Compute, 102}},
                  1},
        // Exactly at the autostop moment usage still counts as running.
        UsageCase{"AtAutostopStillRunning", {{Step::Start, 100, 10}, {Step::Compute, 110}}, 10},
        // No autostop: runs until stopped, across computes.
        UsageCase{"NoAutostopRunsOn",
                  {{Step::Start, 0.5, 0}, {Step::Compute, 1000.5}, {Step::Compute, 4000.5}},
                  4000},
        // Stopping an idle metric changes nothing; a stop ends the autostop with the stretch.
        UsageCase{"StopIdle", {{Step::Update, 1, 3}, {Step::Stop, 50}, {Step::Compute, 60}}, 3},
        UsageCase{"StopThenStartWithoutAutostop",
                  {{Step::Start, 100, 30}, {Step::Stop, 105}, {Step::Start, 200, 0}, {Step::Compute, 300}},
                  105},
        // Clock going backwards never subtracts usage; usage goes on from there.
        UsageCase{"ClockBackwards", {{Step::Start, 100, 0}, {Step::Compute, 90}, {Step::Compute, 95}}, 5},
        // Counter and usage seconds add up.
        UsageCase{"CounterAndUsage", {{Step::Update, 1, -4}, {Step::Start, 10, 0}, {Step::Compute, 17}}, 3}),
    [](const testing::TestParamInfo<UsageCase>& row) { return std::string(row.param.name); });

TEST(PXMetric, CounterTruthResetAndWrapping) {
  PXRef<PXMetric> persisted = PXMake<PXMetric>();
  EXPECT_FALSE(persisted->shouldSubmitMetric());
  persisted->updateValue(-1);
  EXPECT_TRUE(persisted->shouldSubmitMetric());
  persisted->metricIsTrue();
  persisted->metricIsTrue();
  EXPECT_EQ(persisted->value(), 1);
  persisted->setValue(INT32_MAX);
  persisted->updateValue(1);
  EXPECT_EQ(persisted->value(), INT32_MIN) << "wraps without undefined behaviour";

  // A reset keeps the value of non-persisted metrics only.
  PXRef<PXMetric> fixed = PXMake<PXMetric>();
  fixed->setValue(7);
  fixed->setNeedsPersistentStorage(false);
  persisted->resetMetric();
  fixed->resetMetric();
  EXPECT_EQ(persisted->value(), 0);
  EXPECT_EQ(fixed->value(), 7);
}

TEST(PXMetric, ComputeCallbackPhasesAndDataClearing) {
  PXScopedVirtualClock clock(PXDate(100));
  PXRef<PXMetric> metric = PXMake<PXMetric>();
  auto data = PXMutableDictionary::dictionary();
  data->setObject("v", "k");
  metric->setMetricData(data);

  std::vector<int> phases;
  bool clearOnReset = false;
  metric->setComputeMetricBlock([&](PXMetric& m, PXMetricComputePhase phase) {
    phases.push_back(phase);
    if (phase == PXMetricComputePhaseCompute) m.metricData()->setObject(m.value(), "seen");
    return clearOnReset;
  });
  ASSERT_EQ(phases, std::vector<int>{0}) << "installing runs the callback once, at once";

  metric->startOrContinueUsageWithAutostopAfterInterval(0);
  clock.set(PXDate(104));
  metric->computeMetric();
  EXPECT_EQ(data->objectForKey("seen").intValue(), 4) << "phase 1 runs after usage is committed";

  metric->resetMetric();
  EXPECT_EQ(data->count(), 2u) << "a callback answering no keeps the data";
  clearOnReset = true;
  metric->resetMetric();
  EXPECT_EQ(data->count(), 0u);
  EXPECT_EQ(metric->metricData(), data) << "the dictionary object stays";
  EXPECT_EQ(phases, (std::vector<int>{0, 1, 2, 2}));

  metric->setComputeMetricBlock(nullptr);
  metric->computeMetric();  // no callback: nothing to call
  EXPECT_EQ(phases.size(), 4u);
}

TEST(PXMetric, ArchivingCommitsUsageAndRestoresIdlePersistedMetric) {
  PXScopedVirtualClock clock(PXDate(1000));
  PXRef<PXMetric> metric = PXMake<PXMetric>();
  metric->setIdentifier("common.usage");
  metric->setPrimary("editor");
  metric->setSubmissionFrequency(86400);
  metric->setNeedsPersistentStorage(false);
  auto data = PXMutableDictionary::dictionary();
  data->setObject(3, "files");
  metric->setMetricData(data);
  metric->startOrContinueUsageWithAutostopAfterInterval(0);
  clock.advance(42.9);

  PXRef<PXData> archive = PXKeyedArchiver::archivedDataWithRootObject(PXValue(metric));
  ASSERT_TRUE(archive);
  EXPECT_EQ(metric->value(), 42) << "archiving computes first";

  PXRef<PXMetric> restored =
      PXDynamicCast<PXMetric>(PXKeyedUnarchiver::unarchiveObjectWithData(archive).objectValue());
  ASSERT_TRUE(restored);
  EXPECT_EQ(restored->identifier(), "common.usage");
  EXPECT_EQ(restored->primary(), "editor");
  EXPECT_TRUE(restored->secondary().isAbsent());
  EXPECT_EQ(restored->value(), 42);
  EXPECT_TRUE(restored->needsPersistentStorage()) << "the flag is not archived";
  EXPECT_EQ(restored->submissionFrequency(), 0.0);
  clock.advance(100);
  restored->computeMetric();
  EXPECT_EQ(restored->value(), 42) << "a running stretch is not resumed";
  ASSERT_TRUE(restored->metricData());
  EXPECT_TRUE(restored->metricData()->isMutable());
  EXPECT_EQ(restored->metricData()->objectForKey("files").intValue(), 3);
}

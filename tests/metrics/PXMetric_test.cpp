#include <gtest/gtest.h>
#include <pxkit/metrics/PXMetric.h>
#include <pxkit/objects/PXClock.h>
#include <pxkit/objects/PXKeyedArchiver.h>

#include <vector>

TEST(PXMetric, UsageAccountsWholeSecondsUpToAutostop) {
  // A second compute shows whether usage was still running after the first.
  struct Step {
    enum Op { Start, Stop, Compute, Update } op;
    double at, arg = 0;
  };
  struct Case {
    const char* name;
    std::vector<Step> steps;
    int32_t value;  // after the last step
  };
  using S = Step;
  const Case cases[] = {
      {"the stretch so far counts, and goes on",
       {{S::Start, 100, 10}, {S::Compute, 105}, {S::Compute, 107}},
       7},
      {"clipped at the autostop, then idle", {{S::Start, 100, 10}, {S::Compute, 200}, {S::Compute, 300}}, 10},
      {"a restart re-arms the autostop",
       {{S::Start, 100, 10}, {S::Start, 108, 10}, {S::Stop, 130}, {S::Compute, 131}},
       18},
      {"the fraction is dropped at a compute", {{S::Start, 100, 0}, {S::Stop, 100.7}, {S::Compute, 101}}, 0},
      {"fractions add up before a compute",
       {{S::Start, 100, 0}, {S::Stop, 100.7}, {S::Start, 101, 0}, {S::Stop, 101.7}, {S::Compute, 102}},
       1},
      {"at the autostop still running", {{S::Start, 100, 10}, {S::Compute, 110}}, 10},
      {"no autostop runs on", {{S::Start, 0.5, 0}, {S::Compute, 1000.5}, {S::Compute, 4000.5}}, 4000},
      {"stopping an idle metric changes nothing", {{S::Update, 1, 3}, {S::Stop, 50}, {S::Compute, 60}}, 3},
      {"a stop ends the autostop",
       {{S::Start, 100, 30}, {S::Stop, 105}, {S::Start, 200, 0}, {S::Compute, 300}},
       105},
      {"a clock going back subtracts nothing", {{S::Start, 100, 0}, {S::Compute, 90}, {S::Compute, 95}}, 5},
      {"counter and usage add up", {{S::Update, 1, -4}, {S::Start, 10, 0}, {S::Compute, 17}}, 3},
  };
  for (const Case& c : cases) {
    PXScopedVirtualClock clock(PXDate(0));
    PXRef<PXMetric> metric = PXMake<PXMetric>();
    for (const Step& step : c.steps) {
      clock.set(PXDate(step.at));
      if (step.op == S::Start) metric->startOrContinueUsageWithAutostopAfterInterval(step.arg);
      if (step.op == S::Stop) metric->stopUsage();
      if (step.op == S::Compute) metric->computeMetric();
      if (step.op == S::Update) metric->updateValue(static_cast<int32_t>(step.arg));
    }
    EXPECT_EQ(metric->value(), c.value) << c.name;
  }
}

TEST(PXMetric, CounterTruthAndWrapping) {
  PXRef<PXMetric> metric = PXMake<PXMetric>();
  EXPECT_FALSE(metric->shouldSubmitMetric());
  metric->updateValue(-1);
  EXPECT_TRUE(metric->shouldSubmitMetric());
  metric->metricIsTrue();
  metric->metricIsTrue();
  EXPECT_EQ(metric->value(), 1);
  metric->setValue(INT32_MAX);
  metric->updateValue(1);
  EXPECT_EQ(metric->value(), INT32_MIN) << "wraps without undefined behaviour";
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
  metric->setComputeMetricBlock(nullptr);
  metric->computeMetric();  // no callback: nothing to call
  EXPECT_EQ(phases, (std::vector<int>{0, 1, 2, 2}));
}

TEST(PXMetric, ArchivingCommitsUsageAndRestoresIdlePersistedMetric) {
  PXScopedVirtualClock clock(PXDate(1000));
  PXRef<PXMetric> metric = PXMake<PXMetric>();
  metric->setIdentifier("common.usage");
  metric->setPrimary("editor");
  metric->setSubmissionFrequency(86400);
  metric->setNeedsPersistentStorage(false);
  metric->setMetricData(PXDictionary::dictionaryWithEntries({{"files", 3}})->mutableCopyDictionary());
  metric->startOrContinueUsageWithAutostopAfterInterval(0);
  clock.advance(42.9);
  PXRef<PXData> archive = PXKeyedArchiver::archivedDataWithRootObject(PXValue(metric));
  EXPECT_EQ(metric->value(), 42) << "archiving computes first";
  PXRef<PXMetric> restored =
      PXDynamicCast<PXMetric>(PXKeyedUnarchiver::unarchiveObjectWithData(archive).objectValue());
  ASSERT_TRUE(restored);
  EXPECT_EQ(restored->primary(), "editor");
  EXPECT_TRUE(restored->needsPersistentStorage()) << "the flag is not archived";
  EXPECT_EQ(restored->submissionFrequency(), 0.0);
  clock.advance(100);
  restored->computeMetric();
  EXPECT_EQ(restored->value(), 42) << "a running stretch is not resumed";
  ASSERT_TRUE(restored->metricData());
  EXPECT_TRUE(restored->metricData()->isMutable());
  EXPECT_EQ(restored->metricData()->objectForKey("files").intValue(), 3);
}

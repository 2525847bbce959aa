// The cost of packing a submission as the store grows: dataForSubmissionSync
// (the store written as the {"papercuts":[...]} JSON body, on the metrics
// operation queue) for 100,000 stored metric data sets (1,000 papercuts of 100
// data sets) against 10,000 (100 papercuts). It should grow linearly: about
// ten times the time for ten times the data.
//
// The stores are built in non-shared trackers inside a temporary home, on a
// virtual clock that stands still, so no papercut is cut while packing.
#include <benchmark/benchmark.h>
#include <pxkit/metrics/PXMetricsTracker.h>
#include <pxkit/objects/PXClock.h>
#include <pxkit/platform/PXBundle.h>
#include <stdlib.h>

#include <map>
#include <string>

#include "metrics/internal/PXMetricsTrackerInternal.h"
#include "support/PXBenchHome.h"
#include "support/PXBenchRatio.h"

namespace {

constexpr int kDataSetsPerPapercut = 100;
constexpr double kBenchClock = 771033600;  // 2025-06-08 00:00:00 UTC, seconds since 2001
constexpr int64_t kLargePapercuts = 1000;  // 100,000 data sets
constexpr int64_t kSmallPapercuts = 100;   // 10,000 data sets

// A tracker that has submitted before (so packing cuts nothing) with
// `papercutCount` stored papercuts, each cut by the kit from a day's metrics,
// a third of them qualified.
PXRef<PXMetricsTracker> makeStore(int64_t papercutCount) {
  auto tracker = PXMake<PXMetricsTracker>();
  tracker->setLastAutoSubmissionDate(PXDate(kBenchClock - 3600));
  auto day = PXMake<PXMetricsTracker>();
  for (int i = 0; i < kDataSetsPerPapercut; ++i) {
    PXString primary = i % 3 == 0 ? PXString("primary." + std::to_string(i % 7)) : PXString();
    day->metricForIdentifier("org.example.editor.daily." + std::to_string(i), primary, {});
  }
  PXRef<PXArray> dayMetrics = day->metrics();
  for (int64_t d = 0; d < papercutCount; ++d) {
    for (const PXValue& value : *dayMetrics) {
      static_cast<PXMetric*>(value.objectPointer())->setValue(static_cast<int32_t>(d * 7 + 1));
    }
    PXDate stamp(kBenchClock - 86400.0 * static_cast<double>(papercutCount - d));
    pxkit::internal::addPapercut(*tracker, pxkit::internal::papercutDictWithTimestamp(*day, stamp, false));
  }
  return tracker;
}

std::map<int64_t, PXRef<PXMetricsTracker>>& stores() {
  static std::map<int64_t, PXRef<PXMetricsTracker>> all;
  return all;
}

void BM_Submission_Pack(benchmark::State& bench) {
  PXRef<PXMetricsTracker>& tracker = stores()[bench.range(0)];
  if (!tracker) tracker = makeStore(bench.range(0));
  if (tracker->paperCuts()->count() != static_cast<size_t>(bench.range(0))) {
    return bench.SkipWithError("the store is incomplete");
  }
  size_t bytes = 0;
  for (auto _ : bench) {
    PXRef<PXData> body = tracker->dataForSubmissionSync();
    if (!body) return bench.SkipWithError("nothing was packed");
    bytes = body->length();
    benchmark::DoNotOptimize(body.get());
  }
  bench.counters["bytes"] = static_cast<double>(bytes);
  if (tracker->paperCuts()->count() != static_cast<size_t>(bench.range(0))) {
    bench.SkipWithError("packing changed the store");
  }
}
// Packing runs on the tracker's queue: the CPU column counts every thread. Ratios use wall time.
BENCHMARK(BM_Submission_Pack)
    ->Arg(kSmallPapercuts)
    ->Arg(kLargePapercuts)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime();

}  // namespace

int main(int argc, char** argv) {
  PXBenchHome home;
  PXClock::useVirtualClock(PXDate(kBenchClock));
  PXBundle::setMainBundleIdentity("org.example.BenchEditor", "1.0", "1");
  std::map<std::string, double> t = PXBenchRunAll(argc, argv);
  auto time = [&](int64_t size) {
    return PXBenchTimeOfRun(t, "BM_Submission_Pack/" + std::to_string(size) + "/");
  };
  const double large = time(kLargePapercuts);
  const double small = time(kSmallPapercuts);
  if (large > 0 && small > 0) PXBenchReportRatio("submission-pack-100k-vs-10k", large / small);
  stores().clear();
  PXClock::useRealClock();
  return 0;
}

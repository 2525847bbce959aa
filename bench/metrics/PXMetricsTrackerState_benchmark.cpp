// The cost of the tracker's saved state as it grows: storeAsData and
// restoreFromData for a large state (100,000 persisted metrics, a year of
// stored papercuts) against one a tenth of its size (10,000 metrics, 36
// papercuts). Both should grow linearly: about ten times the time for ten
// times the state.
//
// The states are built in non-shared trackers inside a temporary home, on a
// virtual clock that stands still, so no automatic papercut interferes.
#include <pxkit/metrics/PXMetricsTracker.h>
#include <pxkit/objects/PXClock.h>
#include <pxkit/platform/PXBundle.h>
#include <stdlib.h>
#include <sys/resource.h>

#include <map>
#include <string>
#include <utility>

#include "metrics/internal/PXMetricsTrackerInternal.h"
#include "support/PXBenchHome.h"
#include "support/PXBenchRatio.h"

namespace {

// Each stored papercut reports this many metrics (a day's worth of use).
constexpr int kMetricsPerPapercut = 50;
constexpr double kBenchClock = 771033600;  // 2025-06-08 00:00:00 UTC, seconds since 2001
constexpr int64_t kLarge[] = {100000, 365};
constexpr int64_t kSmall[] = {10000, 36};

// A tracker with `metricCount` persisted metrics, every one with a value and
// a third of them qualified, and `papercutCount` stored papercuts of one day
// each, cut by the kit from a day's metrics.
PXRef<PXMetricsTracker> makeState(int64_t metricCount, int64_t papercutCount) {
  auto tracker = PXMake<PXMetricsTracker>();
  for (int64_t i = 0; i < metricCount; ++i) {
    const std::string identifier = "org.example.editor.metric." + std::to_string(i);
    PXString primary = i % 3 == 0 ? PXString("primary." + std::to_string(i % 17)) : PXString();
    PXRef<PXMetric> metric = tracker->metricForIdentifier(identifier, primary, {});
    metric->setValue(static_cast<int32_t>(i % 1000 + 1));
  }
  auto day = PXMake<PXMetricsTracker>();
  for (int i = 0; i < kMetricsPerPapercut; ++i) {
    day->metricForIdentifier("org.example.editor.daily." + std::to_string(i), {}, {});
  }
  for (int64_t d = 0; d < papercutCount; ++d) {
    PXRef<PXArray> dayMetrics = day->metrics();
    for (const PXValue& value : *dayMetrics) {
      static_cast<PXMetric*>(value.objectPointer())->setValue(static_cast<int32_t>(d + 1));
    }
    PXDate stamp(kBenchClock - 86400.0 * static_cast<double>(papercutCount - d));
    pxkit::internal::addPapercut(*tracker,
                                 pxkit::internal::papercutDictWithTimestamp(*day, stamp, /*reset=*/false));
  }
  return tracker;
}

struct State {
  PXRef<PXMetricsTracker> tracker;
  PXRef<PXData> blob;
};

// Built once per size, dropped before the temporary home goes.
std::map<std::pair<int64_t, int64_t>, State>& states() {
  static std::map<std::pair<int64_t, int64_t>, State> all;
  return all;
}

State& state(int64_t metricCount, int64_t papercutCount) {
  State& s = states()[{metricCount, papercutCount}];
  if (!s.tracker) {
    s.tracker = makeState(metricCount, papercutCount);
    s.blob = s.tracker->storeAsData();
  }
  return s;
}

// Page faults of the whole process so far (the state is made on the tracker's queue).
long minorFaults() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_minflt;
}

void BM_State_StoreAsData(benchmark::State& bench) {
  State& s = state(bench.range(0), bench.range(1));
  if (!s.blob) return bench.SkipWithError("the state could not be stored");
  const long faultsBefore = minorFaults();
  for (auto _ : bench) {
    PXRef<PXData> data = s.tracker->storeAsData();
    benchmark::DoNotOptimize(data.get());
  }
  bench.counters["bytes"] = static_cast<double>(s.blob->length());
  bench.counters["faults"] = benchmark::Counter(static_cast<double>(minorFaults() - faultsBefore),
                                                benchmark::Counter::kAvgIterations);
}
// The archive is made on the tracker's queue: the CPU column counts every thread of
// the process. Ratios use wall time.
BENCHMARK(BM_State_StoreAsData)
    ->Args({kSmall[0], kSmall[1]})
    ->Args({kLarge[0], kLarge[1]})
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime();

void BM_State_RestoreFromData(benchmark::State& bench) {
  State& s = state(bench.range(0), bench.range(1));
  if (!s.blob) return bench.SkipWithError("the state could not be stored");
  PXRef<PXMetricsTracker> fresh;
  for (auto _ : bench) {
    // A fresh tracker each time; making it (and dropping the last one) is not timed.
    bench.PauseTiming();
    fresh = {};
    fresh = PXMake<PXMetricsTracker>();
    bench.ResumeTiming();
    if (!fresh->restoreFromData(s.blob)) return bench.SkipWithError("the state did not restore");
  }
  // After the timed loop: the last restore is complete.
  const bool complete = fresh->metrics()->count() == static_cast<size_t>(bench.range(0)) &&
                        fresh->paperCuts()->count() == static_cast<size_t>(bench.range(1));
  if (!complete) bench.SkipWithError("the restored state is incomplete");
}
BENCHMARK(BM_State_RestoreFromData)
    ->Args({kSmall[0], kSmall[1]})
    ->Args({kLarge[0], kLarge[1]})
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime();

}  // namespace

int main(int argc, char** argv) {
  PXBenchHome home;
  PXClock::useVirtualClock(PXDate(kBenchClock));
  PXBundle::setMainBundleIdentity("org.example.BenchEditor", "1.0", "1");
  std::map<std::string, double> t = PXBenchRunAll(argc, argv);
  // One size's time ("BM_.../100000/365/process_time").
  auto time = [&](const char* benchmark, const int64_t(&size)[2]) {
    return PXBenchTimeOfRun(
        t, std::string(benchmark) + "/" + std::to_string(size[0]) + "/" + std::to_string(size[1]) + "/");
  };
  auto ratio = [&](const char* name, const char* benchmark) {
    const double large = time(benchmark, kLarge);
    const double small = time(benchmark, kSmall);
    if (large > 0 && small > 0) PXBenchReportRatio(name, large / small);
  };
  ratio("state-save-100k-vs-10k", "BM_State_StoreAsData");
  ratio("state-restore-100k-vs-10k", "BM_State_RestoreFromData");
  states().clear();
  PXClock::useRealClock();
  return 0;
}

// Recording cost, side by side with the simplest thing a host could do
// instead: update a counter inline under a mutex.
//
// The caller's thread and the tracker's queue worker are pinned, so that each
// figure describes one placement and not whatever the scheduler chose:
//  - cross-core: caller on one core, worker on another (the usual case in an
//    application whose main thread records while the worker runs elsewhere);
//  - same-core: both on one core (for reference);
//  - sporadic: one call, then about 100 µs of other work, repeated; the
//    figure is the median of the caller's time for the call alone (the usual
//    rhythm of an application, in which the worker has gone idle between calls).
#include <pxkit/metrics/PXMetricsTracker.h>
#include <pxkit/platform/PXDispatchQueue.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "metrics/internal/PXMetricsTrackerInternal.h"
#include "support/PXBenchCores.h"
#include "support/PXBenchRatio.h"

namespace {

constexpr int kSettleEvery = 1 << 16;  // bounds the queue while timing the caller side
constexpr int kBurst = 10000;
constexpr int kSporadicCalls = 200;                            // calls per timed iteration
constexpr auto kSporadicGap = std::chrono::microseconds(100);  // the other work between two calls

// The baseline: a map keyed by the same unified ID, updated inline.
struct InlineCounters {
  std::mutex mutex;
  std::unordered_map<std::string, int> values;
  void update(int delta, std::string_view identifier, std::string_view primary, std::string_view secondary) {
    std::string id;
    id.reserve(identifier.size() + primary.size() + secondary.size() + 8);
    id.append("{")
        .append(identifier)
        .append("}-{")
        .append(primary)
        .append("}-{")
        .append(secondary)
        .append("}");
    std::lock_guard lock(mutex);
    values[id] += delta;
  }
};

PXMetricsTracker& benchTracker() {
  static PXMetricsTracker* tracker = PXMake<PXMetricsTracker>().detach();
  return *tracker;
}

enum class Placement { Unpinned, CrossCore, SameCore };

// Pins the benchmark thread and the tracker's worker as asked; false (and the
// benchmark skipped) when the machine cannot give that placement.
bool place(benchmark::State& state, Placement placement) {
  if (placement == Placement::Unpinned) return true;
  std::vector<int> cores = PXBenchAllowedCores();
  if (cores.empty() || (placement == Placement::CrossCore && cores.size() < 2)) {
    state.SkipWithError("not enough cores for this placement");
    return false;
  }
  const int caller = cores[0];
  const int worker = placement == Placement::CrossCore ? cores[1] : cores[0];
  bool pinned = PXBenchPinCallingThread(caller);
  pxkit::internal::metricsOperationQueue(benchTracker()).sync([&] {
    pinned = PXBenchPinCallingThread(worker) && pinned;
  });
  if (!pinned) state.SkipWithError("the threads could not be pinned");
  return pinned;
}

// Lets both threads run on every core again.
void unplace() {
  PXBenchUnpinCallingThread();
  pxkit::internal::metricsOperationQueue(benchTracker()).sync([] { PXBenchUnpinCallingThread(); });
}

void BM_Recording_InlineMutex(benchmark::State& state) {
  InlineCounters counters;
  for (auto _ : state) counters.update(1, "com.example.clicks", "toolbar", "");
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Recording_InlineMutex);

void recordingCaller(benchmark::State& state, Placement placement) {
  PXMetricsTracker& tracker = benchTracker();
  tracker.setEnabled(true);
  if (!place(state, placement)) return;
  int64_t n = 0;
  for (auto _ : state) {
    tracker.updateMetricValue(1, "com.example.clicks", "toolbar");
    if (++n % kSettleEvery == 0) {
      state.PauseTiming();
      tracker.settleOutstandingOperationsWithOperationSync();
      state.ResumeTiming();
    }
  }
  tracker.settleOutstandingOperationsWithOperationSync();  // after the timed loop
  unplace();
  state.SetItemsProcessed(state.iterations());
}
void BM_Recording_CallerCrossCore(benchmark::State& state) {
  recordingCaller(state, Placement::CrossCore);
}
BENCHMARK(BM_Recording_CallerCrossCore);
void BM_Recording_CallerSameCore(benchmark::State& state) {
  recordingCaller(state, Placement::SameCore);
}
BENCHMARK(BM_Recording_CallerSameCore);
void BM_Recording_Caller(benchmark::State& state) {
  recordingCaller(state, Placement::Unpinned);
}
BENCHMARK(BM_Recording_Caller);

void BM_Recording_CallerDisabled(benchmark::State& state) {
  PXMetricsTracker& tracker = benchTracker();
  tracker.setEnabled(false);
  for (auto _ : state) tracker.updateMetricValue(1, "com.example.clicks", "toolbar");
  tracker.setEnabled(true);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Recording_CallerDisabled);

// One call, then about 100 µs of other work, repeated; each iteration's time
// is the median of the caller's time for its calls.
template <class Call>
void sporadic(benchmark::State& state, Call&& call) {
  using Clock = std::chrono::steady_clock;
  std::vector<double> seconds(kSporadicCalls);
  for (auto _ : state) {
    for (double& spent : seconds) {
      Clock::time_point start = Clock::now();
      call();
      Clock::time_point end = Clock::now();
      spent = std::chrono::duration<double>(end - start).count();
      while (Clock::now() - end < kSporadicGap) benchmark::DoNotOptimize(end);  // the other work
    }
    std::nth_element(seconds.begin(), seconds.begin() + kSporadicCalls / 2, seconds.end());
    state.SetIterationTime(seconds[kSporadicCalls / 2]);
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_Recording_SporadicInlineMutex(benchmark::State& state) {
  InlineCounters counters;
  sporadic(state, [&] { counters.update(1, "com.example.clicks", "toolbar", ""); });
}
BENCHMARK(BM_Recording_SporadicInlineMutex)->UseManualTime()->Iterations(10);

void BM_Recording_SporadicCallerCrossCore(benchmark::State& state) {
  PXMetricsTracker& tracker = benchTracker();
  tracker.setEnabled(true);
  if (!place(state, Placement::CrossCore)) return;
  sporadic(state, [&] { tracker.updateMetricValue(1, "com.example.clicks", "toolbar"); });
  tracker.settleOutstandingOperationsWithOperationSync();
  unplace();
}
BENCHMARK(BM_Recording_SporadicCallerCrossCore)->UseManualTime()->Iterations(10);

// End to end: a burst of calls, then wait until every one has been applied.
void BM_Recording_ThroughputCrossCore(benchmark::State& state) {
  PXMetricsTracker& tracker = benchTracker();
  tracker.setEnabled(true);
  if (!place(state, Placement::CrossCore)) return;
  for (auto _ : state) {
    for (int i = 0; i < kBurst; ++i) tracker.updateMetricValue(1, "com.example.clicks", "toolbar");
    tracker.settleOutstandingOperationsWithOperationSync();
  }
  unplace();
  state.SetItemsProcessed(state.iterations() * kBurst);
}
BENCHMARK(BM_Recording_ThroughputCrossCore);

void BM_Recording_InlineMutexBurst(benchmark::State& state) {
  InlineCounters counters;
  for (auto _ : state) {
    for (int i = 0; i < kBurst; ++i) counters.update(1, "com.example.clicks", "toolbar", "");
  }
  state.SetItemsProcessed(state.iterations() * kBurst);
}
BENCHMARK(BM_Recording_InlineMutexBurst);

}  // namespace

int main(int argc, char** argv) {
  (void)PXBenchOriginalCores();
  std::map<std::string, double> t = PXBenchRunAll(argc, argv);
  auto ratio = [&](const char* name, const char* a, const char* b) {
    if (t.count(a) && t.count(b) && t[b] > 0) PXBenchReportRatio(name, t[a] / t[b]);
  };
  ratio("recording-caller-vs-inline-mutex-cross-core", "BM_Recording_CallerCrossCore",
        "BM_Recording_InlineMutex");
  ratio("recording-caller-vs-inline-mutex-same-core", "BM_Recording_CallerSameCore",
        "BM_Recording_InlineMutex");
  ratio("recording-sporadic-caller-vs-inline-mutex",
        "BM_Recording_SporadicCallerCrossCore/iterations:10/manual_time",
        "BM_Recording_SporadicInlineMutex/iterations:10/manual_time");
  // Throughput is the inverse of time per recording.
  ratio("recording-throughput-vs-inline-mutex-cross-core", "BM_Recording_InlineMutexBurst",
        "BM_Recording_ThroughputCrossCore");
  ratio("recording-caller-disabled-vs-enabled", "BM_Recording_CallerDisabled", "BM_Recording_Caller");
  return 0;
}

// Recording cost, side by side with the simplest thing a host could do
// instead: update a counter inline under a mutex.
#include <pxkit/metrics/PXMetricsTracker.h>
#include <pxkit/objects/PXClock.h>

#include <cstdlib>
#include <mutex>
#include <string>
#include <unordered_map>

#include "support/PXBenchRatio.h"

namespace {

constexpr int kSettleEvery = 1 << 16;  // bounds the queue while timing the caller side

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

void BM_Recording_InlineMutex(benchmark::State& state) {
  InlineCounters counters;
  for (auto _ : state) counters.update(1, "com.example.clicks", "toolbar", "");
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Recording_InlineMutex);

void BM_Recording_Caller(benchmark::State& state) {
  PXMetricsTracker& tracker = benchTracker();
  tracker.setEnabled(true);
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
  state.SetItemsProcessed(state.iterations());
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

// End to end: a burst of calls, then wait until every one has been applied.
void BM_Recording_Throughput(benchmark::State& state) {
  PXMetricsTracker& tracker = benchTracker();
  tracker.setEnabled(true);
  constexpr int kBurst = 10000;
  for (auto _ : state) {
    for (int i = 0; i < kBurst; ++i) tracker.updateMetricValue(1, "com.example.clicks", "toolbar");
    tracker.settleOutstandingOperationsWithOperationSync();
  }
  state.SetItemsProcessed(state.iterations() * kBurst);
}
BENCHMARK(BM_Recording_Throughput);

void BM_Recording_InlineMutexBurst(benchmark::State& state) {
  InlineCounters counters;
  constexpr int kBurst = 10000;
  for (auto _ : state) {
    for (int i = 0; i < kBurst; ++i) counters.update(1, "com.example.clicks", "toolbar", "");
  }
  state.SetItemsProcessed(state.iterations() * kBurst);
}
BENCHMARK(BM_Recording_InlineMutexBurst);

}  // namespace

int main(int argc, char** argv) {
  std::map<std::string, double> t = PXBenchRunAll(argc, argv);
  auto ratio = [&](const char* name, const char* a, const char* b) {
    if (t.count(a) && t.count(b) && t[b] > 0) PXBenchReportRatio(name, t[a] / t[b]);
  };
  ratio("recording-caller-vs-inline-mutex", "BM_Recording_Caller", "BM_Recording_InlineMutex");
  // Throughput is the inverse of time per recording.
  ratio("recording-throughput-vs-inline-mutex", "BM_Recording_InlineMutexBurst", "BM_Recording_Throughput");
  ratio("recording-caller-disabled-vs-enabled", "BM_Recording_CallerDisabled", "BM_Recording_Caller");
  return 0;
}

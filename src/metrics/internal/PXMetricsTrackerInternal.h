// PXKit — the tracker's own operations, for the kit's parts and its tests.
//
// What a host calls is in <pxkit/metrics/PXMetricsTracker.h>. The operations
// here are the ones the tracker's own files (recording, papercuts,
// persistence, submission) call on each other, and that tests and benchmarks
// reach to look inside: the registry lookup without creation, the papercut
// pieces, the live containers behind the snapshot getters, and the operation
// queue itself.
//
//   using namespace pxkit::internal;
//   PXRef<PXMetric> m = findMetricForIdentifier(tracker, "com.example.clicks", "toolbar", {});
//   addPapercut(tracker, papercutDictWithTimestamp(tracker, PXDate::now(), /*reset=*/false));
//
// Thread safety and locks: as the public header says; each function notes the
// locks it takes.
#pragma once

#include <pxkit/metrics/PXMetricsTracker.h>
#include <pxkit/platform/PXDispatchQueue.h>

namespace pxkit::internal {

// The friend through which the functions below reach the tracker's members.
struct MetricsTrackerAccess {
  static PXDispatchQueue& queue(const PXMetricsTracker& tracker) noexcept {
    return *tracker.metricsOperationQueue_;
  }
};

// The queue every metrics operation runs on (serial; jobs hold the tracker lock).
inline PXDispatchQueue& metricsOperationQueue(const PXMetricsTracker& tracker) noexcept {
  return MetricsTrackerAccess::queue(tracker);
}

}  // namespace pxkit::internal

// PXKit — the tracker's own operations, for the kit's parts and its tests.
//
// What a host calls is in <pxkit/metrics/PXMetricsTracker.h>. The operations
// here are the ones the tracker's own files (recording, papercuts,
// persistence, submission) call on each other, and that tests and benchmarks
// use to look inside: the registry lookup without creation, the papercut
// pieces, the live containers behind the snapshot getters, and the operation
// queue itself.
//
//   using namespace pxkit::internal;
//   PXRef<PXMetric> m = findMetricForIdentifier(tracker, "com.example.clicks", "toolbar", {});
//   addPapercut(tracker, papercutDictWithTimestamp(tracker, PXDate::now(), /*reset=*/false));
//
// Thread safety: any thread, as the public operations; the locks each takes
// are named, in the order of the public header.
#pragma once

#include <pxkit/metrics/PXMetricsTracker.h>
#include <pxkit/platform/PXDispatchQueue.h>

class PXTimer;

namespace pxkit::internal {

// The friend through which the functions below reach the tracker's members.
struct MetricsTrackerAccess {
  static PXDispatchQueue& queue(const PXMetricsTracker& tracker) noexcept {
    return *tracker.metricsOperationQueue_;
  }
  static PXRef<PXMutableArray> paperCuts(const PXMetricsTracker& tracker);
  static PXRef<PXMutableDictionary> lastPaperCutDates(const PXMetricsTracker& tracker);
  static PXRef<PXMutableDictionary> userData(const PXMetricsTracker& tracker);
  static PXRef<PXMetric> findMetric(const PXMetricsTracker& tracker, const PXString& unifiedID);
};

// The queue every metrics operation runs on (serial; jobs hold the tracker lock).
inline PXDispatchQueue& metricsOperationQueue(const PXMetricsTracker& tracker) noexcept {
  return MetricsTrackerAccess::queue(tracker);
}

// The live containers behind paperCuts(), lastPaperCutDateByMetricID() and
// userData() (empty only after an absent one was set). Each is guarded by its own monitor: hold it while
// reading or changing it.
inline PXRef<PXMutableArray> livePaperCuts(const PXMetricsTracker& tracker) {
  return MetricsTrackerAccess::paperCuts(tracker);
}
inline PXRef<PXMutableDictionary> liveLastPaperCutDates(const PXMetricsTracker& tracker) {
  return MetricsTrackerAccess::lastPaperCutDates(tracker);
}
inline PXRef<PXMutableDictionary> liveUserData(const PXMetricsTracker& tracker) {
  return MetricsTrackerAccess::userData(tracker);
}

// "{identifier}-{primary}-{secondary}"; absent qualifiers are written as "",
// an absent identifier as "(null)".
PXString unifiedIDForIdentifier(const PXString& identifier, const PXString& primary,
                                const PXString& secondary);

// The registered metric, or empty (nothing is created); writes the unified ID
// to `unifiedID` when given. Takes the registry lock.
PXRef<PXMetric> findMetricForIdentifier(const PXMetricsTracker& tracker, const PXString& identifier,
                                        const PXString& primary, const PXString& secondary,
                                        PXString* unifiedID = nullptr);

// The papercut of the current period stamped `timestamp`, over a snapshot of
// the registry taken now, or over `snapshot` when given; with `reset`, every
// metric of it is reset and a new period begins. Empty when no package ID can
// be made. Takes the registry lock, then each metric's.
PXRef<PXMutableDictionary> papercutDictWithTimestamp(PXMetricsTracker& tracker, PXDate timestamp, bool reset,
                                                     const PXArray* snapshot = nullptr);
// The data sets ("identifier", "primary", "secondary", "value") of the metrics
// due for submission among `metrics`; with `reset`, resets all of them.
PXRef<PXMutableArray> compileMetricsDataSetsFromMetrics(PXMetricsTracker& tracker, const PXArray& metrics,
                                                        bool reset);
// Stores `papercut` unless it is absent or reports nothing, and moves each
// reported metric's last papercut date forward. Takes the papercut list's
// lock, then the date table's.
void addPapercut(PXMetricsTracker& tracker, const PXRef<PXDictionary>& papercut);
// Lower-case hex MD5 of the UTF-8 bytes; absent for an absent string.
PXString md5ChecksumOfString(const PXString& string);
// The daily timer's action (main thread): today's papercut, tomorrow's timer,
// a submission considered, the state saved.
void automaticPapercutTimerFired(PXMetricsTracker& tracker, PXTimer& timer);

}  // namespace pxkit::internal

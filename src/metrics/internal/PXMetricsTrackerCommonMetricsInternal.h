// PXKit — the common metrics' own operations, for the kit and its tests.
//
// addCommonMetrics (<pxkit/metrics/PXMetricsTrackerCommonMetrics.h>) keeps
// the power-source and network usage current through the two operations
// here; tests call them to play changes.
//
//   using namespace pxkit::internal;
//   _powerSourceUpdate(*tracker);                     // commits the running stretch, follows the source
//   networkStatusUpdate(*tracker, /*available=*/false); // "offline" usage from now on
//
// Thread safety: any thread. The metric work is enqueued on the tracker's
// metrics operation queue; the remembered "last" values are written right
// after enqueueing, outside the queue.
#pragma once

#include <pxkit/metrics/PXMetricsTracker.h>
#include <pxkit/objects/PXString.h>

class PXNotification;

namespace pxkit::internal {

// The association keys (their addresses) of the tracker's remembered values.
extern const char* const kPXMetricsTrackerCommonMetricsLastPowerSourceKey;
extern const char* const kPXMetricsTrackerCommonMetricsLastNetworkStatusKey;

// _powerSourceUpdate: stops the usage of the remembered power source, then
// starts (or continues) the usage of the shared power source observer's
// current source and remembers it; with no current source only the stop
// happens and the remembered name stays. The notification is not read.
void _powerSourceUpdate(PXMetricsTracker& tracker, const PXNotification* notification = nullptr);
// The same with `current` as the current source (absent: none known).
void powerSourceUpdate(PXMetricsTracker& tracker, const PXString& current);

// The network-status callback: stops the remembered status's usage, starts
// "online" or "offline" as `available` says, and remembers it.
void networkStatusUpdate(PXMetricsTracker& tracker, bool available);

}  // namespace pxkit::internal

// PXKit — PXMetricsTrackerCommonMetrics: the catalogue of metrics every host
// gets by one call.
//
// addCommonMetrics records what the machine and the application are
// (versions, hardware, displays, language, time zone) as state metrics,
// counts launches, and measures running time, time on each power source and
// time online and offline as usage metrics. The host calls it once per
// launch, after sharedMetricsTracker() and normally before start().
//
//   PXMetricsTracker* tracker = PXMetricsTracker::sharedMetricsTracker();
//   PXMetricsTrackerCommonMetrics::addCommonMetrics(*tracker);
//   tracker->start();
//
//   // What this machine reports, without recording anything (pxkit facts):
//   for (const PXCommonMetric& m : PXMetricsTrackerCommonMetrics::commonMetricsCatalogue())
//     printf("%s %s %s\n", m.identifier.c_str(), m.primary.c_str(), m.secondary.c_str());
//
// The catalogue, in order (docs/linux-sources.md, "Common metrics", has the
// Linux source of each fact):
//
//   common.appversion     state    short version up to its first "."  | short version
//   common.osversion      state    OS version up to its second "."    | OS version
//   common.hwvendor       state    "Apple", or the board maker of a "FakeSMC" service
//   common.hwmodel        state    computer model                     | model identifier
//   common.cputype        state    CPU brand string
//   common.cpucores       state    physical cores                     | logical CPUs
//   common.memoryphysical state    installed memory / 1048576000 (8 GiB gives "8")
//   common.displaycount   state    number of screens
//   common.displaytype    state    "retina" when a screen scales above 1.0, else "regular"
//   common.graphicscard   state    one per distinct GPU model name
//   common.drivetechnology state   one per distinct medium type of an internal drive
//   common.language       state    the user's first language          | the host's localisation
//   common.timezone       state    zone abbreviation                  | hours from GMT, "%.01f"
//   common.launches       counter  +1 per call
//   common.firstlaunch    counter  +1 on the first launch ever ("MetricsAppHasLaunched")
//   common.runtime        usage    from the call until the process ends
//   common.powersource    usage    one per power source name, the current one running
//   common.network        usage    "online" / "offline", the current one running
//
// A fact the machine does not have (no DMI, no GPU, no battery, no screen
// server) drops only its own metric; steps that need two facts (versions,
// model, cores) drop their pair.
//
// Thread safety: addCommonMetrics and commonMetricsCatalogue run on the
// caller's thread, normally the main thread (whose run loop delivers
// power-source changes; from another thread they wait for the main loop to
// start the network monitor, so the main loop must be running then). State
// metrics are registered synchronously; usage and counter changes run on the
// tracker's metrics operation queue.
#pragma once

#include <pxkit/export.h>
#include <pxkit/metrics/PXMetricsTracker.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXString.h>

#include <cstdint>
#include <vector>

class PXRuleChecker;

// Keys of the attribute dictionary of metricForIdentifier(tracker, identifier, psAttributes, value).
PXKIT_EXPORT extern const char* const kPXMetricsAttributePrimaryValueKey;         // "primaryValue"
PXKIT_EXPORT extern const char* const kPXMetricsAttributeSecondaryValueKey;       // "secondaryValue"
PXKIT_EXPORT extern const char* const kPXMetricsAttributePrimaryExpressionKey;    // "primaryExpression"
PXKIT_EXPORT extern const char* const kPXMetricsAttributeSecondaryExpressionKey;  // "secondaryExpression"

// The user-defaults key written YES on the first launch: "MetricsAppHasLaunched".
PXKIT_EXPORT extern const char* const kPXMetricsAppHasLaunchedKey;

// One catalogue entry as this machine reports it now. Absent qualifiers are
// absent strings.
struct PXCommonMetric {
  PXString identifier;  // "common.osversion"
  PXString primary;
  PXString secondary;
  const char* kind;  // "state", "counter" or "usage"
};

namespace PXMetricsTrackerCommonMetrics {

// Registers the state metrics, counts the launch (and the first launch; both
// dropped while the tracker's `enabled` is false, though the first-launch flag
// is written all the same), starts the runtime, power-source and network
// usage, and keeps the last two current: power-source change notifications
// and will-terminate call _powerSourceUpdate, changes of the network monitor's
// "networkAvailable" switch the network usage. The observations end when the
// tracker is destroyed. Meant once per launch: a second call counts a second
// launch and observes twice.
PXKIT_EXPORT void addCommonMetrics(PXMetricsTracker& tracker);

// The catalogue as this machine would report it now, in catalogue order:
// every state metric with its qualifiers, then common.launches,
// common.firstlaunch (only when the host's user defaults hold no
// "MetricsAppHasLaunched"), common.runtime, common.powersource (when a power
// source name is known) and common.network. Facts are read through `checker`
// (the shared checker when null) and the kit's device registry, screens,
// locale and calendar. Records nothing.
PXKIT_EXPORT std::vector<PXCommonMetric> commonMetricsCatalogue(const PXRuleChecker* checker = nullptr);

// metricForIdentifier:psAttributes:withValue: a state metric (value
// `withValue`, not persisted, submitted daily) whose qualifiers come from
// attributes: primary is the "primaryValue" entry or, when that is absent,
// the shared rule checker's result for the "primaryExpression" entry;
// secondary likewise. Values that are not strings are used as their "%@"
// text. Runs on the caller's thread; not gated by `enabled`. Empty when the
// metric cannot be registered (absent identifier).
PXKIT_EXPORT PXRef<PXMetric> metricForIdentifier(PXMetricsTracker& tracker, const PXString& identifier,
                                                 const PXDictionary* psAttributes, int32_t withValue);

}  // namespace PXMetricsTrackerCommonMetrics

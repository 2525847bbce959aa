// Child of the crash-safety test: records and saves in a loop until killed.
// After every completed save it writes the saved generation (a 64-bit integer)
// to file descriptor 3.
#include <pxkit/metrics/PXMetricsTracker.h>
#include <pxkit/objects/PXClock.h>
#include <pxkit/platform/PXBundle.h>
#include <unistd.h>

#include <cstdint>

#include "metrics/internal/PXMetricsTrackerInternal.h"

int main() {
  PXClock::useVirtualClock(PXDate(700056000));  // one fixed day: no papercut interferes
  if (!PXBundle::setMainBundleIdentity("org.pxkit.CrashTest", "1.0", "1")) return 2;
  auto tracker = PXMake<PXMetricsTracker>();
  tracker->loadFromPreferences();
  for (;;) {
    tracker->updateMetricValue(1, "crash.counter");
    tracker->performMetricsOperation([&] {
      PXRef<PXMetric> counter = pxkit::internal::findMetricForIdentifier(*tracker, "crash.counter", {}, {});
      tracker->setUserData(PXDictionary::dictionaryWithEntries({{"generation", counter->value()}}));
    });
    tracker->saveToPreferences();
    int64_t generation = tracker->userData()->objectForKey("generation").longLongValue();
    if (write(3, &generation, sizeof generation) != sizeof generation) return 3;
  }
}

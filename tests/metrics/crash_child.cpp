// Child of the crash-safety test: records and saves in a loop until killed.
// After every completed save it writes the saved generation as a line of text
// to file descriptor 3.
#include <pxkit/metrics/PXMetricsTracker.h>
#include <pxkit/objects/PXClock.h>
#include <pxkit/platform/PXBundle.h>
#include <unistd.h>

#include <cstdint>
#include <string>

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
    std::string line = std::to_string(tracker->userData()->objectForKey("generation").longLongValue()) + "\n";
    if (write(3, line.data(), line.size()) != static_cast<ssize_t>(line.size())) return 3;
  }
}

#include <pxkit/platform/PXClock.h>
#include <pxkit/platform/PXDate.h>

// Every "now" of the kit comes from the one replaceable clock.
PXDate PXDate::now() {
  return PXClock::now();
}

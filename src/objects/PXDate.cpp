#include <pxkit/objects/PXClock.h>
#include <pxkit/objects/PXDate.h>

// Every "now" of the kit comes from the one replaceable clock.
PXDate PXDate::now() {
  return PXClock::now();
}

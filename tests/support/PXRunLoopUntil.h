// Runs the calling thread's run loop until a condition holds: the tests' way to wait, with no sleeps.
//   ASSERT_TRUE(PXRunLoopUntil([&] { return count == 3; }, {.maxVirtualSeconds = 3600}));
// Each round dispatches what is ready. When nothing is and the virtual clock may move on, it jumps
// to the loop's next timer date within the allowance; otherwise (or while I/O is pending on the
// loop) the loop waits for an event.
#pragma once

#include <functional>

struct PXRunLoopUntilOptions {
  int maxIterations = 1000000;     // rounds (each dispatches or waits once)
  double maxVirtualSeconds = 0.0;  // how far the virtual clock may be moved on
  // A hang guard, never reached by a passing test: after this many seconds the run ends with false.
  double hangGuardSeconds = 60.0;
};

// True once `predicate` holds (checked before every round); false when a bound is reached first.
bool PXRunLoopUntil(const std::function<bool()>& predicate, PXRunLoopUntilOptions options = {});

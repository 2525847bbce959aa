// Runs the calling thread's run loop until a condition holds — the tests' way
// to wait, with no sleeps.
//
//   bool fired = false;
//   queue->async([&] { PXRunLoop::main()->performBlock([&] { fired = true; }); });
//   ASSERT_TRUE(PXRunLoopUntil([&] { return fired; }));
//
//   // Let virtual time run, timer by timer, for up to an hour:
//   ASSERT_TRUE(PXRunLoopUntil([&] { return count == 3; }, {.maxVirtualSeconds = 3600}));
//
// Each round dispatches what is ready. When nothing is, and the virtual clock
// is in use with a virtual-time allowance, the clock jumps to this loop's next
// timer date within the allowance; otherwise the loop waits for an event (work
// from another thread, a timer with the real clock). While I/O is pending on
// the loop, the clock stays and the loop waits for the I/O.
#pragma once

#include <functional>

struct PXRunLoopUntilOptions {
  // Rounds before giving up (each round dispatches or waits once).
  int maxIterations = 1000000;
  // How far the virtual clock may be moved on, in seconds (0: not at all).
  double maxVirtualSeconds = 0.0;
  // A guard against a test that would otherwise hang: an idle wait longer than
  // this (monotonic seconds) ends the run with false. Never reached by a
  // passing test; not a timing assertion.
  double hangGuardSeconds = 60.0;
};

// True once `predicate` holds (it is checked before every round); false when
// a bound is reached first.
bool PXRunLoopUntil(const std::function<bool()>& predicate, PXRunLoopUntilOptions options = {});

// PXKit — the kit's one clock.
//
// Every reading of "now" in the kit (PXDate::now(), timer deadlines, day
// changes, usage accounting) comes from this clock. It is the wall clock
// (CLOCK_REALTIME) unless a test switches it to a virtual clock, which stands
// still until the test sets or advances it. Moving the virtual clock wakes
// every run loop, so timers that became due fire on their own threads.
//
// Beside the wall clock runs a monotonic one (monotonicNow) for timeouts and
// intervals that must not jump when the wall clock is set: it never goes back.
// It follows the virtual clock too: forward with every forward move, and not
// at all when the virtual clock is set back.
//
//   PXScopedVirtualClock clock(PXDate(0));         // 2001-01-01 00:00:00 UTC
//   auto timer = PXTimer::scheduledTimerWithTimeInterval(60, false, [](PXTimer*) { ... });
//   clock.advance(60);                             // the timer is due now
//   PXRunLoop::current()->runUntilDate(PXDate::now());
//
// Thread safety: every function may be called from any thread. Reading the
// clock is wait-free; setting it is serialised.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXDate.h>

#include <cstdint>
#include <functional>

class PXKIT_EXPORT PXClock {
 public:
  PXClock() = delete;

  // Now: the virtual time when the virtual clock is in use, else CLOCK_REALTIME
  // (microsecond resolution or better).
  static PXDate now() noexcept;
  // Whether the virtual clock is in use.
  static bool isVirtual() noexcept;

  // Monotonic seconds, for measuring timeouts and intervals (only differences
  // of two readings mean anything; the origin is unspecified). With the real
  // clock: CLOCK_MONOTONIC (which, on Linux, stands still while the machine
  // sleeps). With the virtual clock: stands still until the virtual clock
  // moves forward, then moves by as much; a backwards move (setVirtualNow to an
  // earlier date, a negative advance) leaves it where it is. It never goes back,
  // not even across a switch of clocks: after a test has advanced virtual time,
  // the real monotonic clock resumes from the virtual reading.
  static double monotonicNow() noexcept;

  // Switches to the virtual clock, standing at `date`. Wakes every run loop.
  static void useVirtualClock(PXDate date);
  // Switches back to the wall clock. Wakes every run loop.
  static void useRealClock();
  // Sets the virtual clock to `date` (forwards or backwards: a jump, as after a
  // sleep or a manual clock change). Does nothing when the real clock is in use.
  static void setVirtualNow(PXDate date);
  // Moves the virtual clock on by `seconds` (may be negative). Does nothing when
  // the real clock is in use.
  static void advanceVirtualClock(double seconds);

  // Change observers: called after every switch of clock and every move of the
  // virtual clock, on the thread that made the change, with no kit lock held.
  // Run loops use this to re-check their timers. The returned token (never 0)
  // removes the observer; after removeChangeObserver returns, the observer is
  // not running and will not be called again (unless it is removing itself).
  using ChangeObserver = std::function<void()>;
  static uint64_t addChangeObserver(ChangeObserver observer);
  static void removeChangeObserver(uint64_t token);
};

// Uses the virtual clock for the lifetime of the object, then returns to the
// wall clock. For tests; one at a time.
class PXKIT_EXPORT PXScopedVirtualClock {
 public:
  explicit PXScopedVirtualClock(PXDate start) { PXClock::useVirtualClock(start); }
  ~PXScopedVirtualClock() { PXClock::useRealClock(); }
  PXScopedVirtualClock(const PXScopedVirtualClock&) = delete;
  PXScopedVirtualClock& operator=(const PXScopedVirtualClock&) = delete;

  PXDate now() const noexcept { return PXClock::now(); }
  void set(PXDate date) { PXClock::setVirtualNow(date); }
  void advance(double seconds) { PXClock::advanceVirtualClock(seconds); }
};

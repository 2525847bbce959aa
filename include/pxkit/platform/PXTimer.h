// PXKit — run-loop timers with wall-clock fire dates.
//
// A PXTimer calls its action, with itself as the argument, on the thread of the
// run loop it was added to, once its fire date has come. The fire date is a
// wall-clock moment (a PXDate read from PXClock), not an amount of elapsed
// time: a timer whose date passed while the machine slept fires as soon as the
// loop runs again, and setting a fire date measures the remaining time afresh
// from the clock. Underneath, each run loop has one timer source: a timerfd on
// CLOCK_REALTIME (absolute, cancelled when the clock is set) with the real
// clock; with the virtual clock, every move of the clock wakes the loop. Should
// the timerfd be out of reach (no fd left), the failure is logged and the loop
// wakes by poll timeouts instead, late or early by a wall-clock jump or a sleep.
//
//   // Repeating every 5 s, first after 1 s, on the calling thread's run loop:
//   PXRef<PXTimer> t = PXTimer::scheduledTimerWithTimeInterval(5, true, [](PXTimer* timer) { ... });
//   // With a target kept alive by the timer until it is invalidated:
//   PXRef<PXTimer> daily = PXMake<PXTimer>(fireDate, 0, tracker.get(),
//       PXTimerAction(&Tracker::_automaticPapercutTimer), PXValue(), false);
//   PXRunLoop::main()->addTimer(daily.get(), kPXRunLoopCommonModes);
//   t->invalidate();
//
// Repeating timers keep their rhythm: after a firing, the next fire date is the
// first date fireDate + k * interval (k >= 1) that lies after now, so a timer
// that was late (the loop was busy, the machine slept) fires once, not in a burst.
// A non-repeating timer invalidates itself after firing, and its run loop then
// lets go of it.
//
// Thread safety: every member function may be called from any thread. The
// action runs on the run loop's thread. A timer belongs to one run loop.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXDate.h>
#include <pxkit/objects/PXObject.h>
#include <pxkit/objects/PXRef.h>
#include <pxkit/objects/PXValue.h>
#include <pxkit/platform/PXRunLoop.h>

#include <cstdint>
#include <functional>
#include <string_view>

namespace pxkit::internal {
struct TimerSource;
struct TimerAccess;
}  // namespace pxkit::internal

class PXKIT_EXPORT PXTimer : public PXObject {
  PX_DECLARE_CLASS(PXTimer)

 public:
  // The action: called with the firing timer.
  using Action = std::function<void(PXTimer* timer)>;

  // A timer, not yet scheduled (add it to a run loop to arm it).
  //  fireDate  the first firing (wall clock);
  //  interval  seconds between firings of a repeating timer; a repeating timer
  //            with interval <= 0 uses 0.0001 s; ignored (reported as 0) when
  //            the timer does not repeat;
  //  target    kept alive (retained) until the timer is invalidated; may be null;
  //            a timer whose target is itself does not retain it;
  //  action    called on each firing; may be empty (the timer then fires silently);
  //  userInfo  any value, kept until the timer is destroyed.
  PXTimer(PXDate fireDate, double interval, PXObject* target, Action action, PXValue userInfo, bool repeats);
  ~PXTimer() override;

  // The same as PXMake<PXTimer>(...): not scheduled.
  static PXRef<PXTimer> timerWithFireDate(PXDate fireDate, double interval, PXObject* target, Action action,
                                          PXValue userInfo, bool repeats);
  // Fire date now + `seconds`; not scheduled.
  static PXRef<PXTimer> timerWithTimeInterval(double seconds, PXObject* target, Action action,
                                              PXValue userInfo, bool repeats);
  // Fire date now + `seconds`, added to the calling thread's run loop in the default mode.
  static PXRef<PXTimer> scheduledTimerWithTimeInterval(double seconds, PXObject* target, Action action,
                                                       PXValue userInfo, bool repeats);
  // Callback forms, without target or user info.
  static PXRef<PXTimer> timerWithTimeInterval(double seconds, bool repeats, Action block);
  static PXRef<PXTimer> scheduledTimerWithTimeInterval(double seconds, bool repeats, Action block);

  // Adds the timer to `runLoop` (see PXRunLoop::addTimer). Null does nothing.
  void addToRunLoop(PXRunLoop* runLoop, std::string_view mode = kPXDefaultRunLoopMode);

  // Calls the action now, on the calling thread, if the timer is valid. A
  // non-repeating timer is then invalidated; a repeating one keeps its schedule.
  void fire();
  // Stops the timer for good: it will not fire again, its run loop lets go of
  // it and it releases its target and action (after the current firing, if it
  // is firing now). Idempotent. Any thread; safe from inside the action.
  void invalidate();
  bool isValid() const;

  // The next firing (for an unscheduled timer: the first one).
  PXDate fireDate() const;
  // Moves the next firing to `date` (a date in the past fires at the next
  // iteration of the loop). The remaining time is measured afresh from the
  // clock. No effect once invalidated.
  void setFireDate(PXDate date);
  // Seconds between firings; 0 for a non-repeating timer.
  double timeInterval() const;
  bool repeats() const;
  PXObject* target() const;
  PXValue userInfo() const;

  // The run loop the timer was added to, or null.
  PXRunLoop* runLoop() const;

 private:
  friend struct pxkit::internal::TimerAccess;

  // All guarded by the one lock of the timer machinery (PXTimer.cpp).
  PXDate fireDate_;
  double interval_;
  bool repeats_;
  bool valid_ = true;
  int firing_ = 0;         // nesting depth of running actions
  uint64_t sequence_ = 0;  // order among timers with the same fire date
  PXObject* target_;       // +1 unless it is this timer
  Action action_;
  PXValue userInfo_;
  PXRunLoop* runLoop_ = nullptr;  // not owned: a run loop outlives the timers it holds
  pxkit::internal::TimerSource* source_ = nullptr;
};

// An action that calls `method` on the timer's target, when the target is a T.
template <class T>
PXTimer::Action PXTimerAction(void (T::*method)(PXTimer*)) {
  return [method](PXTimer* timer) {
    if (T* target = dynamic_cast<T*>(timer->target())) (target->*method)(timer);
  };
}

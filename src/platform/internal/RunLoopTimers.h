// The timer source of a run loop (platform layer only).
//
// Each PXRunLoop attaches one of these to its GLib main context. It keeps the
// loop's valid timers ordered by fire date and fires those that are due; it is
// woken by a CLOCK_REALTIME timerfd armed for the earliest fire date (real
// clock) or by every move of the virtual clock. PXTimer.cpp implements it.
#pragma once

#include <glib.h>

#include <optional>

class PXTimer;
class PXRunLoop;

namespace pxkit::internal {

struct TimerSource;

// Attaches a timer source for `loop` to `context`. Never null.
TimerSource* timerSourceAttach(GMainContext* context, PXRunLoop* loop);
// Removes the source from its context and lets go of its timers (they become
// invalid: their run loop is going away). Call once, from the loop's destructor.
void timerSourceDetach(TimerSource* source);
// Schedules a valid, unscheduled timer; retains it until it is invalidated.
void timerSourceAdd(TimerSource* source, PXTimer* timer);
// The earliest fire date of the source's armed timers, in seconds since the
// reference date, or nothing when no timer is armed.
std::optional<double> timerSourceEarliestDate(TimerSource* source);

}  // namespace pxkit::internal

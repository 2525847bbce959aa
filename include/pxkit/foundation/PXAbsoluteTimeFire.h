// PXKit — one-shot timers that fire at a wall-clock moment.
//
// An absolute-time timer fires at a fixed moment even when the machine sleeps
// through it or the system time zone changes: on every wake-up and every time
// zone change its fire date is set again to the same absolute date, so the run
// loop measures the remaining time afresh from the wall clock. A date that
// passed during sleep fires at once on wake; a date still ahead fires on time.
// A manual change of the clock while awake does not re-arm it.
//
//   PXRef<PXTimer> t = PXAbsoluteTimeFire::scheduledTimerWithAbsoluteFireDate(
//       midnight, [](PXTimer*) { cutPapercut(); });
//
// The re-arming observes kPXSystemTimeZoneDidChangeNotification on the default
// centre and kPXWorkspaceDidWakeNotification on the workspace's centre from
// creation until the timer is destroyed (invalidating does not end it).
//
// Thread safety: scheduling adds the timer to the calling thread's run loop;
// the fire date is re-set on the thread that posts the notification.
#pragma once

#include <pxkit/export.h>
#include <pxkit/foundation/PXBlocks.h>
#include <pxkit/platform/PXTimer.h>

#include <optional>
#include <string_view>

// The association key of the re-arming trampoline on the timer.
PXKIT_EXPORT extern const char* const
    kPXAbsoluteTimeFireAbsoluteTimeKey;  // "kPXAbsoluteTimeFireAbsoluteTimeKey"

namespace PXAbsoluteTimeFire {

// A non-repeating timer for `date` with the target, action and user info,
// re-armed on wake and time zone changes. Not scheduled: add it to a run loop.
PXKIT_EXPORT PXRef<PXTimer> initWithAbsoluteFireDate(PXDate date, PXObject* target, PXTimer::Action action,
                                                     PXValue userInfo);
// The same with a callback (the execute-block action, the callback as user info).
PXKIT_EXPORT PXRef<PXTimer> initWithAbsoluteFireDate(PXDate date, PXTimerBlock executeBlock);
// Not scheduled.
PXKIT_EXPORT PXRef<PXTimer> timerWithAbsoluteFireDate(PXDate date, PXTimerBlock executeBlock);
// Added to the calling thread's run loop in `mode`, or in the common modes.
PXKIT_EXPORT PXRef<PXTimer> scheduledTimerWithAbsoluteFireDate(
    PXDate date, PXTimerBlock executeBlock, std::optional<std::string_view> inRunLoopMode = std::nullopt);

}  // namespace PXAbsoluteTimeFire

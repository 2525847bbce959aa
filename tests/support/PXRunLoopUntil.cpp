#include "support/PXRunLoopUntil.h"

#include <pxkit/objects/PXClock.h>
#include <pxkit/platform/PXRunLoop.h>

#include "platform/internal/FdWatch.h"
#include "platform/internal/GLibHandles.h"
#include "platform/internal/RunLoopContext.h"

bool PXRunLoopUntil(const std::function<bool()>& predicate, PXRunLoopUntilOptions options) {
  PXRunLoop* loop = PXRunLoop::current();
  GMainContext* context = loop->context()->glib;
  const PXDate virtualLimit = PXClock::now() + options.maxVirtualSeconds;
  const gint64 deadline =
      g_get_monotonic_time() + static_cast<gint64>(options.hangGuardSeconds * G_USEC_PER_SEC);
  pxkit::glib::AttachedSource wake(g_timeout_source_new(static_cast<guint>(options.hangGuardSeconds * 1000)));
  g_source_set_dummy_callback(wake.get());  // wakes a blocked round when the guard is up
  g_source_attach(wake.get(), context);
  // Owned for the whole wait, as PXRunLoop::run owns it, so no other thread takes it in between.
  const bool owned = g_main_context_acquire(context);
  bool held = false;
  for (int i = 0; !(held = predicate()) && i < options.maxIterations && g_get_monotonic_time() < deadline;
       ++i) {
    if (loop->runOnce(/*mayBlock=*/false)) continue;
    // Virtual time waits for I/O in flight on the loop (see PXRunLoop::runUntilDate).
    if (PXClock::isVirtual() && options.maxVirtualSeconds > 0.0 && !pxkit::internal::hasPendingIO(loop)) {
      if (std::optional<PXDate> next = loop->nextTimerDate(); next && *next <= virtualLimit) {
        if (*next > PXClock::now()) PXClock::setVirtualNow(*next);
        continue;
      }
    }
    loop->runOnce(/*mayBlock=*/true);
  }
  if (owned) g_main_context_release(context);
  return held;
}

#include "support/PXRunLoopUntil.h"

#include <glib.h>
#include <pxkit/objects/PXClock.h>
#include <pxkit/platform/PXRunLoop.h>

#include <cmath>

#include "platform/internal/FdWatch.h"
#include "platform/internal/RunLoopContext.h"

bool PXRunLoopUntil(const std::function<bool()>& predicate, PXRunLoopUntilOptions options) {
  PXRunLoop* loop = PXRunLoop::current();
  const PXDate virtualLimit = PXClock::now() + options.maxVirtualSeconds;
  bool hung = false;
  GSource* guard = g_timeout_source_new(static_cast<guint>(std::ceil(options.hangGuardSeconds * 1000.0)));
  g_source_set_callback(
      guard,
      [](gpointer flag) -> gboolean {
        *static_cast<bool*>(flag) = true;
        return G_SOURCE_REMOVE;
      },
      &hung, nullptr);
  g_source_attach(guard, loop->context()->glib);
  // Owned for the whole wait, as PXRunLoop::run owns it: between two
  // iterations another thread must not take the loop's context for itself.
  GMainContext* context = loop->context()->glib;
  const bool owned = g_main_context_acquire(context);

  bool held = false;
  for (int i = 0; i < options.maxIterations && !hung; ++i) {
    if (predicate()) {
      held = true;
      break;
    }
    if (loop->runOnce(/*mayBlock=*/false)) continue;
    // Virtual time waits for I/O in flight on the loop (see PXRunLoop::runUntilDate).
    if (PXClock::isVirtual() && options.maxVirtualSeconds > 0.0 && !pxkit::internal::hasPendingIO(loop)) {
      std::optional<PXDate> next = loop->nextTimerDate();
      if (next && *next <= virtualLimit) {
        if (*next > PXClock::now()) PXClock::setVirtualNow(*next);
        continue;
      }
    }
    loop->runOnce(/*mayBlock=*/true);
  }
  if (!held && !hung) held = predicate();
  if (owned) g_main_context_release(context);
  g_source_destroy(guard);
  g_source_unref(guard);
  return held;
}

// Runs a piece of work on a GLib main context: here and now when the calling
// thread may (it owns the context, or nobody does and it can take it), else on
// the thread that iterates the context, at its next iteration.
//
//   // Make a file monitor that delivers on the main loop, from any thread:
//   pxkit::internal::runOnContext(g_main_context_default(),
//                                 [this] { startMonitor(); }, RunOnContextMode::DontWait);
//
//   // The last resort at exit: post here if the main context is free, else not at all.
//   if (!runOnContext(main, [&] { post(true); }, RunOnContextMode::OnlyHere)) post(false);
//
// Wherever it runs, the work runs with `context` owned by the running thread
// and pushed as its thread-default context, so sources, file monitors and D-Bus
// subscriptions made inside attach to `context`.
//
// Thread safety: any thread, any number of threads at once. The work must not
// throw when it may run later (DontWait): an exception there is logged at error
// level and dropped; with Wait it is rethrown to the waiting caller, and inline
// it simply propagates. A caller that waits (Wait) on a context that another
// caller of runOnContext has taken only for its own work takes the context as
// soon as that work is done and runs its work itself. Waiting on a context that
// a thread holds otherwise without iterating it, or on one whose iterating
// thread waits for the caller, never returns.
#pragma once

#include <glib.h>

#include <functional>

class PXRunLoop;

namespace pxkit::internal {

enum class RunOnContextMode {
  Wait,      // run here if possible, else hand over and block until it has run there
  DontWait,  // run here if possible, else hand over and return at once
  OnlyHere,  // run here if possible, else do not run it at all
};

// Runs `work` on `context` (null: the global default main context) in the
// manner `mode` says. Returns true when the work has run by the time the call
// returns (here, or there while waiting), false when it was handed over
// (DontWait) or not run (OnlyHere). A context destroyed before it ran the work
// drops it (with Wait: the call returns false).
bool runOnContext(GMainContext* context, std::function<void()> work, RunOnContextMode mode);

// The same on a run loop's context.
bool runOnRunLoop(PXRunLoop& runLoop, std::function<void()> work, RunOnContextMode mode);

}  // namespace pxkit::internal

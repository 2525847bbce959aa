// What a run loop hands to the platform layer: its GLib main context and the
// count of I/O in flight on it (platform layer only).
//
//   GMainContext* context = loop->context()->glib;
//   g_source_attach(source, context);
//
// PXRunLoop::context() returns this handle; the public header only names the
// type, so no GLib type reaches include/pxkit/. The handle lives as long as its
// run loop (hold a PXRef<PXRunLoop> to keep it).
#pragma once

#include <glib.h>

#include <atomic>

namespace pxkit::internal {

struct RunLoopContext {
  // The context underneath: the global default context for the main run loop,
  // a thread-default context for the others. The loop holds a reference.
  GMainContext* glib = nullptr;
  // Live PendingIO objects on the loop (FdWatch.h). While above zero, a run
  // with the virtual clock waits for I/O instead of moving the clock on.
  std::atomic<unsigned> pendingIO{0};
};

}  // namespace pxkit::internal

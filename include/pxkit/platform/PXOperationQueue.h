// PXKit — the main operation queue.
//
// The main operation queue runs blocks later, in order, on the main run loop
// (the main thread's GLib default main context; see PXRunLoop.h). Adding a
// block never runs it inline, not even on the main thread: it runs on a later
// iteration of the main loop.
//
//   PXOperationQueue::mainQueue()->addOperationWithBlock([tracker] { tracker->saveToPreferences(); });
//
// Thread safety: any thread may add operations.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXObject.h>

#include <functional>

class PXRunLoop;

class PXKIT_EXPORT PXOperationQueue : public PXObject {
  PX_DECLARE_CLASS(PXOperationQueue)

 public:
  // The main operation queue. Never null; lives until the process ends.
  static PXOperationQueue* mainQueue();
  // The main queue when called on the main thread (inside or outside one of its
  // operations), else null.
  static PXOperationQueue* currentQueue();

  // Runs `block` later on the main run loop's thread, after the blocks added
  // before it. An empty block is ignored. Any thread.
  void addOperationWithBlock(std::function<void()> block);

  // The run loop the queue's operations run on (the main run loop).
  PXRunLoop* runLoop() const noexcept { return runLoop_; }

 private:
  explicit PXOperationQueue(PXRunLoop* runLoop) noexcept : runLoop_(runLoop) {}
  PXRunLoop* runLoop_;
};

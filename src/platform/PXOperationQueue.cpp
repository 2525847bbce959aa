#include <glib.h>
#include <pxkit/platform/PXOperationQueue.h>
#include <pxkit/platform/PXRunLoop.h>
#include <unistd.h>

#include <utility>

#include "platform/internal/RunLoopContext.h"

PX_DEFINE_CLASS(PXOperationQueue, PXObject, nullptr)

PXOperationQueue* PXOperationQueue::mainQueue() {
  static PXOperationQueue* queue = new PXOperationQueue(PXRunLoop::main());  // lives until the process ends
  return queue;
}

PXOperationQueue* PXOperationQueue::currentQueue() {
  const bool onMainThread =
      gettid() == getpid() || g_main_context_is_owner(PXRunLoop::main()->context()->glib);
  return onMainThread ? mainQueue() : nullptr;
}

void PXOperationQueue::addOperationWithBlock(std::function<void()> block) {
  // Always through the loop, never inline: callers rely on "later".
  runLoop_->performBlock(std::move(block));
}

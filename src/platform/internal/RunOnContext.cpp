#include "platform/internal/RunOnContext.h"

#include <pxkit/objects/PXException.h>
#include <pxkit/platform/PXLog.h>
#include <pxkit/platform/PXRunLoop.h>

#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/internal/GLibHandles.h"
#include "platform/internal/RunLoopContext.h"

namespace pxkit::internal {

namespace {

// Runs `work` with `context` owned by this thread and pushed as its default.
void runAsDefault(GMainContext* context, const std::function<void()>& work) {
  glib::ThreadDefaultContext scope(context);
  work();
}

// What the hand-over shares between the caller and the context's thread.
struct HandOver {
  std::function<void()> work;
  GMainContext* context = nullptr;  // borrowed: the source holds a reference while it exists
  bool waited = false;
  // With Wait only:
  std::mutex mutex;
  std::condition_variable finished;
  bool done = false;
  bool ran = false;
  bool claimed = false;  // the work has been taken, by the context's thread or by the waiter
  bool retry = false;    // the context was let go: the waiter may take it itself
  std::exception_ptr failure;
};

// Callers waiting for a context that was taken but not iterated. When a caller
// that ran its work here lets the context go, it tells the waiters of that
// context, and one of them takes the context and runs its own work: two threads
// that both want a context nobody iterates must not wait on each other forever.
std::mutex gWaitersMutex;
std::vector<std::shared_ptr<HandOver>> gWaiters;

void addWaiter(const std::shared_ptr<HandOver>& handOver) {
  std::lock_guard lock(gWaitersMutex);
  gWaiters.push_back(handOver);
}

void removeWaiter(const std::shared_ptr<HandOver>& handOver) {
  std::lock_guard lock(gWaitersMutex);
  std::erase(gWaiters, handOver);
}

void tellWaitersContextIsFree(GMainContext* context) {
  std::lock_guard lock(gWaitersMutex);
  for (const std::shared_ptr<HandOver>& waiter : gWaiters) {
    if (waiter->context != context) continue;
    {
      std::lock_guard waiterLock(waiter->mutex);
      waiter->retry = true;
    }
    waiter->finished.notify_all();
  }
}

// Runs `work` here with the context taken for the time of it; lets the context
// go and tells whoever waits for it.
void runTaken(GMainContext* context, const std::function<void()>& work) {
  struct Release {
    GMainContext* c;
    ~Release() {
      g_main_context_release(c);
      tellWaitersContextIsFree(c);
    }
  } release{context};
  runAsDefault(context, work);
}

void logDropped(const char* why) {
  PXLogWithLevel(PXLogLevel::Error, "PXKit: work handed to a main context raised an exception: %s", why);
}

gboolean runHandedOver(gpointer data) {
  auto& handOver = *static_cast<std::shared_ptr<HandOver>*>(data);
  if (handOver->waited) {
    std::lock_guard lock(handOver->mutex);
    if (handOver->claimed) return G_SOURCE_REMOVE;  // the waiter ran it itself
    handOver->claimed = true;
  }
  std::exception_ptr failure;
  try {
    runAsDefault(handOver->context, handOver->work);
  } catch (const PXException& e) {
    failure = std::current_exception();
    if (!handOver->waited) logDropped(e.description().c_str());
  } catch (const std::exception& e) {
    failure = std::current_exception();
    if (!handOver->waited) logDropped(e.what());
  } catch (...) {
    failure = std::current_exception();
    if (!handOver->waited) logDropped("unknown exception");
  }
  if (handOver->waited) {
    std::lock_guard lock(handOver->mutex);
    handOver->ran = true;
    handOver->failure = failure;
  }
  return G_SOURCE_REMOVE;
}

// The source's end, run or not: tells a waiting caller.
void releaseHandOver(gpointer data) {
  auto* handOver = static_cast<std::shared_ptr<HandOver>*>(data);
  if ((*handOver)->waited) {
    {
      std::lock_guard lock((*handOver)->mutex);
      (*handOver)->done = true;
      // The work goes with the source, on this thread, not on the waiter's.
      (*handOver)->work = nullptr;
    }
    (*handOver)->finished.notify_all();
  }
  delete handOver;
}

}  // namespace

bool runOnContext(GMainContext* context, std::function<void()> work, RunOnContextMode mode) {
  if (!work) return false;
  if (!context) context = g_main_context_default();
  if (g_main_context_is_owner(context)) {
    runAsDefault(context, work);
    return true;
  }
  if (g_main_context_acquire(context)) {
    runTaken(context, work);
    return true;
  }
  if (mode == RunOnContextMode::OnlyHere) return false;

  auto handOver = std::make_shared<HandOver>();
  handOver->work = std::move(work);
  handOver->context = context;
  handOver->waited = mode == RunOnContextMode::Wait;
  glib::Source source(g_idle_source_new());
  g_source_set_priority(source.get(), G_PRIORITY_DEFAULT);
  g_source_set_callback(source.get(), runHandedOver, new std::shared_ptr<HandOver>(handOver),
                        releaseHandOver);
  g_source_attach(source.get(), context);
  if (mode == RunOnContextMode::DontWait) return false;

  // Wait for the context's thread to run it, unless the context is let go
  // before that by someone who only took it for a moment: then take it here.
  // Registered before the first try, so that no letting go falls in between.
  addWaiter(handOver);
  std::unique_lock lock(handOver->mutex);
  bool tryHere = true;
  while (!handOver->done) {
    if (tryHere && !handOver->claimed && g_main_context_acquire(context)) {
      handOver->claimed = true;
      std::function<void()> mine = std::move(handOver->work);
      lock.unlock();
      removeWaiter(handOver);
      g_source_destroy(source.get());  // not run there: its end only lets go of the hand-over
      runTaken(context, mine);         // an exception simply propagates, as inline
      return true;
    }
    handOver->finished.wait(lock, [&] { return handOver->done || handOver->retry; });
    tryHere = std::exchange(handOver->retry, false);
  }
  lock.unlock();
  removeWaiter(handOver);
  if (handOver->failure) std::rethrow_exception(handOver->failure);
  return handOver->ran;
}

bool runOnRunLoop(PXRunLoop& runLoop, std::function<void()> work, RunOnContextMode mode) {
  return runOnContext(runLoop.context()->glib, std::move(work), mode);
}

}  // namespace pxkit::internal

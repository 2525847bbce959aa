#include "platform/internal/RunOnContext.h"

#include <pxkit/objects/PXException.h>
#include <pxkit/platform/PXLog.h>
#include <pxkit/platform/PXRunLoop.h>

#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>

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
  std::exception_ptr failure;
};

void logDropped(const char* why) {
  PXLogWithLevel(PXLogLevel::Error, "PXKit: work handed to a main context raised an exception: %s", why);
}

gboolean runHandedOver(gpointer data) {
  auto& handOver = *static_cast<std::shared_ptr<HandOver>*>(data);
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
    struct Release {
      GMainContext* c;
      ~Release() { g_main_context_release(c); }
    } release{context};
    runAsDefault(context, work);
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
  source.reset();  // the context holds it now
  if (mode == RunOnContextMode::DontWait) return false;

  std::unique_lock lock(handOver->mutex);
  handOver->finished.wait(lock, [&] { return handOver->done; });
  if (handOver->failure) std::rethrow_exception(handOver->failure);
  return handOver->ran;
}

bool runOnRunLoop(PXRunLoop& runLoop, std::function<void()> work, RunOnContextMode mode) {
  return runOnContext(runLoop.context()->glib, std::move(work), mode);
}

}  // namespace pxkit::internal

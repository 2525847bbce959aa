#include <glib.h>
#include <pxkit/platform/PXLog.h>

#include <condition_variable>
#include <memory>
#include <mutex>

namespace {

// The current handler. Each line takes a counted snapshot under the mutex and
// calls it outside; PXLogSetHandler waits, under the same mutex, until no other
// thread still holds a snapshot of the handler it replaced. So once it returns,
// the old handler (and whatever it captured) may be destroyed.
std::mutex handlerMutex;
std::condition_variable handlerIdle;
std::shared_ptr<const PXLogHandler> currentHandler;

// Set while this thread runs a handler: a handler that swaps handlers cannot
// wait for itself to finish.
thread_local int handlerDepth = 0;

// Drops a snapshot under the mutex (so use counts are exact there) and wakes a waiting swap.
struct Snapshot {
  std::shared_ptr<const PXLogHandler> handler;
  ~Snapshot() {
    if (!handler) return;
    {
      std::lock_guard lock(handlerMutex);
      handler.reset();
    }
    handlerIdle.notify_all();
  }
};

}  // namespace

void PXLogSetHandler(PXLogHandler handler) {
  auto next = handler ? std::make_shared<const PXLogHandler>(std::move(handler)) : nullptr;
  std::unique_lock lock(handlerMutex);
  std::shared_ptr<const PXLogHandler> previous = std::exchange(currentHandler, std::move(next));
  if (previous && handlerDepth == 0) handlerIdle.wait(lock, [&] { return previous.use_count() == 1; });
  lock.unlock();
  // `previous` is released here, outside the lock: destroying it may run arbitrary code.
}

void PXLogLine(std::string_view line) {
  Snapshot snapshot;
  {
    std::lock_guard lock(handlerMutex);
    snapshot.handler = currentHandler;
  }
  if (snapshot.handler) {
    ++handlerDepth;
    struct Leave {
      ~Leave() { --handlerDepth; }
    } leave;
    (*snapshot.handler)(line);
    return;
  }
  // The line is the whole message: no file, line or function fields.
  g_log_structured("PXKit", G_LOG_LEVEL_MESSAGE, "MESSAGE", "%.*s", static_cast<int>(line.size()),
                   line.data());
}

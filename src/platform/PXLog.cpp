#include <glib.h>
#include <pxkit/platform/PXLog.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

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

namespace {

struct GLibLevel {
  GLogLevelFlags flags;
  const char* priority;  // syslog numbering, as the journal expects
};

GLibLevel glibLevel(PXLogLevel level) noexcept {
  switch (level) {
    case PXLogLevel::Debug:
      return {G_LOG_LEVEL_DEBUG, "7"};
    case PXLogLevel::Info:
      return {G_LOG_LEVEL_INFO, "6"};
    case PXLogLevel::Notice:
      return {G_LOG_LEVEL_MESSAGE, "5"};
    case PXLogLevel::Warning:
      return {G_LOG_LEVEL_WARNING, "4"};
    case PXLogLevel::Error:
      return {G_LOG_LEVEL_WARNING, "3"};
  }
  return {G_LOG_LEVEL_MESSAGE, "5"};
}

}  // namespace

const char* PXLogLevelName(PXLogLevel level) noexcept {
  switch (level) {
    case PXLogLevel::Debug:
      return "debug";
    case PXLogLevel::Info:
      return "info";
    case PXLogLevel::Notice:
      return "notice";
    case PXLogLevel::Warning:
      return "warning";
    case PXLogLevel::Error:
      return "error";
  }
  return "notice";
}

void PXLogLineWithLevel(PXLogLevel level, std::string_view line) {
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
    (*snapshot.handler)(level, line);
    return;
  }
  // The line is the whole message: no file, line or function fields. The
  // fields are given whole (not through g_log_structured, which would derive
  // PRIORITY from the GLib level and could not say "error" without ending the
  // process).
  // GLib's stderr writer reads MESSAGE as a C string: give it one.
  const GLibLevel glib = glibLevel(level);
  const std::string message(line);
  const GLogField fields[] = {
      {"PRIORITY", glib.priority, -1},
      {"GLIB_DOMAIN", "PXKit", -1},
      {"MESSAGE", message.c_str(), -1},
  };
  g_log_structured_array(glib.flags, fields, G_N_ELEMENTS(fields));
}

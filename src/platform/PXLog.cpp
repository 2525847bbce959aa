#include <glib.h>
#include <pxkit/platform/PXLog.h>

#include <memory>
#include <mutex>

namespace {

// The current handler, shared so that a line being written keeps the handler
// it started with alive even if another thread swaps it meanwhile.
std::mutex handlerMutex;
std::shared_ptr<const PXLogHandler> currentHandler;

std::shared_ptr<const PXLogHandler> handlerSnapshot() {
  std::lock_guard lock(handlerMutex);
  return currentHandler;
}

}  // namespace

void PXLogSetHandler(PXLogHandler handler) {
  auto next = handler ? std::make_shared<const PXLogHandler>(std::move(handler)) : nullptr;
  std::shared_ptr<const PXLogHandler> previous;  // released outside the lock
  std::lock_guard lock(handlerMutex);
  previous = std::exchange(currentHandler, std::move(next));
}

void PXLogLine(std::string_view line) {
  if (auto handler = handlerSnapshot()) {
    (*handler)(line);
    return;
  }
  // The line is the whole message: no file, line or function fields.
  g_log_structured("PXKit", G_LOG_LEVEL_MESSAGE, "MESSAGE", "%.*s", static_cast<int>(line.size()),
                   line.data());
}

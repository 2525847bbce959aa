// PXKit — the kit's log lines.
//
// PXLog writes one line in the kit's own words through GLib structured
// logging under the domain "PXKit" (the journal when present, else stderr).
// A host or a test may capture the lines instead.
//
//   PXLog("%s: caught exception: %@", __func__, exception.description());
//
//   PXLogSetHandler([](std::string_view line) { captured.push_back(std::string(line)); });
//   ...
//   PXLogSetHandler(nullptr);                     // back to the system log
//
// Thread safety: any thread; the handler is called on the logging thread and
// must be thread-safe itself.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXFormat.h>

#include <functional>
#include <string_view>

using PXLogHandler = std::function<void(std::string_view line)>;

// Replaces the destination of every log line; null restores the system log.
// Returns once no other thread is still running the replaced handler, so the
// caller may then destroy whatever that handler captured.
PXKIT_EXPORT void PXLogSetHandler(PXLogHandler handler);
// Writes an already formatted line.
PXKIT_EXPORT void PXLogLine(std::string_view line);

template <class... Args>
void PXLog(const char* format, const Args&... args) {
  PXLogLine(PXFormat(format, args...).view());
}

// PXKit — the kit's log lines, with a level each.
//
// PXLog writes one line in the kit's own words through GLib structured
// logging under the domain "PXKit" (the journal when present, else stderr), at
// the default level, Notice. PXLogWithLevel writes at a level of the caller's
// choice: Debug and Info lines are shown only when G_MESSAGES_DEBUG names
// "PXKit" (or "all"); Warning is for a failure the kit recovers from or drops
// (a state that could not be saved, a watch that could not be made), Error for
// one that loses something. The line itself is the whole message, unchanged by
// the level. A host or a test may capture the lines instead.
//
//   PXLog("%s: caught exception: %@", __func__, exception.description());
//   PXLogWithLevel(PXLogLevel::Warning, "PXKit: cannot save the tracker's state: %@", why);
//
//   PXLogSetHandler([](PXLogLevel level, std::string_view line) { captured.emplace_back(level, line); });
//   ...
//   PXLogSetHandler(nullptr);                     // back to the system log
//
// How the levels reach GLib (the journal's PRIORITY field, syslog numbering):
//   Debug   -> G_LOG_LEVEL_DEBUG,   PRIORITY 7
//   Info    -> G_LOG_LEVEL_INFO,    PRIORITY 6
//   Notice  -> G_LOG_LEVEL_MESSAGE, PRIORITY 5
//   Warning -> G_LOG_LEVEL_WARNING, PRIORITY 4
//   Error   -> G_LOG_LEVEL_WARNING, PRIORITY 3 (GLib's own error level would
//              end the process, and its critical level means a programming
//              error, so the GLib level stays at warning and only the priority
//              says error)
// Each record carries GLIB_DOMAIN=PXKit, PRIORITY and MESSAGE, nothing else
// (no file, line or function fields). As for any GLib warning, a process run
// with G_DEBUG=fatal-warnings (or g_log_set_always_fatal) ends at a Warning or
// Error line that reaches GLib.
//
// Thread safety: any thread; the handler is called on the logging thread and
// must be thread-safe itself.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXFormat.h>

#include <functional>
#include <string_view>

// How much a line matters, least first.
enum class PXLogLevel { Debug, Info, Notice, Warning, Error };

// The level of PXLog and PXLogLine.
inline constexpr PXLogLevel kPXLogDefaultLevel = PXLogLevel::Notice;

// "debug", "info", "notice", "warning", "error".
PXKIT_EXPORT const char* PXLogLevelName(PXLogLevel level) noexcept;

using PXLogHandler = std::function<void(PXLogLevel level, std::string_view line)>;

// Replaces the destination of every log line, of every level; null restores
// the system log. Returns once no other thread is still running the replaced
// handler, so the caller may then destroy whatever that handler captured.
PXKIT_EXPORT void PXLogSetHandler(PXLogHandler handler);
// Writes an already formatted line at `level`.
PXKIT_EXPORT void PXLogLineWithLevel(PXLogLevel level, std::string_view line);
// Writes an already formatted line at the default level.
inline void PXLogLine(std::string_view line) {
  PXLogLineWithLevel(kPXLogDefaultLevel, line);
}

// Formats (PXFormat) and writes one line at `level`.
template <class... Args>
void PXLogWithLevel(PXLogLevel level, const char* format, const Args&... args) {
  PXLogLineWithLevel(level, PXFormat(format, args...).view());
}

// Formats (PXFormat) and writes one line at the default level: the kit's own lines.
template <class... Args>
void PXLog(const char* format, const Args&... args) {
  PXLogLineWithLevel(kPXLogDefaultLevel, PXFormat(format, args...).view());
}

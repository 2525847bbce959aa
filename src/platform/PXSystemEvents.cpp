// System events → platform notifications: the time-zone file watch and the
// login manager's sleep signal. See internal/SystemEvents.h for the contract
// and docs/linux-sources.md for where each event comes from.

#include <gio/gunixfdlist.h>
#include <limits.h>
#include <pxkit/platform/PXApplication.h>
#include <pxkit/platform/PXBundle.h>
#include <pxkit/platform/PXCalendar.h>
#include <pxkit/platform/PXLog.h>
#include <pxkit/platform/PXNotificationCenter.h>
#include <pxkit/platform/PXWorkspace.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "platform/internal/GLibHandles.h"
#include "platform/internal/RunOnContext.h"
#include "platform/internal/SystemBus.h"
#include "platform/internal/SystemEvents.h"

namespace {

constexpr const char* kDefaultLocalTimePath = "/etc/localtime";
constexpr const char* kLocalTimePathVariable = "PXKIT_LOCALTIME_PATH";

constexpr const char* kLogindName = "org.freedesktop.login1";
constexpr const char* kLogindPath = "/org/freedesktop/login1";
constexpr const char* kLogindManager = "org.freedesktop.login1.Manager";

// ---- Time zone ------------------------------------------------------------------

// What the local-time file says: where the link points (when it is one) and
// the zone data it leads to. Absent while the file cannot be read (as between
// the removal and re-creation of a non-atomic replacement).
std::optional<std::string> readZoneFingerprint(const std::string& path) {
  std::string fingerprint;
  char target[PATH_MAX];
  const ssize_t length = readlink(path.c_str(), target, sizeof target);
  if (length > 0) fingerprint.append(target, static_cast<size_t>(length));
  fingerprint.push_back('\0');
  pxkit::glib::String contents;
  gsize size = 0;
  if (!g_file_get_contents(path.c_str(), pxkit::glib::out(contents), &size, nullptr)) return std::nullopt;
  fingerprint.append(contents.get(), size);
  return fingerprint;
}

struct TimeZoneWatch {
  std::string path;
  pxkit::glib::Object<GFileMonitor> monitor;
  std::optional<std::string> fingerprint;  // the last zone seen (main context only)
  std::atomic<bool> watching{false};
  std::atomic<bool> checkPending{false};
};

TimeZoneWatch& timeZoneWatch() {
  static auto* watch = new TimeZoneWatch;  // lives until the process ends
  return *watch;
}
std::once_flag gTimeZoneStart;
std::mutex gPathMutex;  // guards TimeZoneWatch::path for readers on other threads

// Looks at the file once the events of one change have arrived. One change
// arrives as several events (an atomic symlink swap: deleted + created +
// changes-done, or one "renamed"; an in-place rewrite: changed... +
// changes-done), so the look is made from an idle callback and posts only
// when the file now says something else than at the last look: one
// notification per change, however many events it took.
void checkTimeZone() {
  TimeZoneWatch& watch = timeZoneWatch();
  watch.checkPending.store(false, std::memory_order_release);
  std::optional<std::string> now = readZoneFingerprint(watch.path);
  if (!now || now == watch.fingerprint) return;
  watch.fingerprint = std::move(now);
  tzset();
  PXCalendar::resetTimeZone();
  PXNotificationCenter::defaultCenter()->postNotificationName(kPXSystemTimeZoneDidChangeNotification);
}

void onLocalTimeEvent(GFileMonitor*, GFile*, GFile*, GFileMonitorEvent event, gpointer) {
  switch (event) {
    case G_FILE_MONITOR_EVENT_CHANGED:  // partial writes: wait for changes-done
    case G_FILE_MONITOR_EVENT_PRE_UNMOUNT:
    case G_FILE_MONITOR_EVENT_UNMOUNTED:
      return;
    default:
      break;
  }
  TimeZoneWatch& watch = timeZoneWatch();
  if (watch.checkPending.exchange(true, std::memory_order_acq_rel)) return;
  g_idle_add_full(
      G_PRIORITY_DEFAULT_IDLE,
      [](gpointer) -> gboolean {
        checkTimeZone();
        return G_SOURCE_REMOVE;
      },
      nullptr, nullptr);
}

// On the main context.
void installTimeZoneWatch(const std::string& path) {
  TimeZoneWatch& watch = timeZoneWatch();
  {
    std::lock_guard lock(gPathMutex);
    watch.path = path;
  }
  watch.fingerprint = readZoneFingerprint(watch.path);
  pxkit::glib::Object<GFile> file(g_file_new_for_path(watch.path.c_str()));
  // WATCH_MOVES: a swap by rename into place arrives as one event. A path
  // that cannot be watched gives no monitor, and so no notifications (said
  // once in the log); nothing else fails.
  pxkit::glib::Error error;
  watch.monitor.reset(
      g_file_monitor_file(file.get(), G_FILE_MONITOR_WATCH_MOVES, nullptr, pxkit::glib::out(error)));
  if (!watch.monitor) {
    PXLogWithLevel(PXLogLevel::Warning, "PXKit: cannot watch %s, so no time-zone change will be posted: %s",
                   watch.path.c_str(), error ? error->message : "no file monitor");
    return;
  }
  g_signal_connect(watch.monitor.get(), "changed", G_CALLBACK(onLocalTimeEvent), nullptr);
  watch.watching.store(true, std::memory_order_release);
}

// Observing the time-zone change on the default centre starts the watch.
[[maybe_unused]] const bool gTimeZoneSourceAdded = pxkit::internal::addSystemNotificationSource(
    kPXSystemTimeZoneDidChangeNotification, &PXSystemEvents::startTimeZoneWatch);

// ---- Sleep and wake ---------------------------------------------------------------

struct SleepWatch {
  std::atomic<bool> started{false};
  std::atomic<bool> holdsInhibitor{false};
  pxkit::internal::SystemBusWatch logind;  // set once, by the starting thread
  // Main context only:
  pxkit::glib::Object<GDBusConnection> bus;  // while the login manager is present
  int inhibitor = -1;                        // the delay inhibitor's descriptor; closing it releases it
  bool inhibitPending = false;
  bool preparingForSleep = false;
};

SleepWatch& sleepWatch() {
  static auto* watch = new SleepWatch;  // lives until the process ends
  return *watch;
}
std::once_flag gSleepStart;

void releaseInhibitor() {
  SleepWatch& watch = sleepWatch();
  if (watch.inhibitor < 0) return;
  close(watch.inhibitor);
  watch.inhibitor = -1;
  watch.holdsInhibitor.store(false, std::memory_order_release);
}

void onInhibitReply(GObject* source, GAsyncResult* result, gpointer) {
  SleepWatch& watch = sleepWatch();
  watch.inhibitPending = false;
  GUnixFDList* rawList = nullptr;
  pxkit::glib::Error error;
  pxkit::glib::Variant reply(g_dbus_connection_call_with_unix_fd_list_finish(
      G_DBUS_CONNECTION(source), &rawList, result, pxkit::glib::out(error)));
  pxkit::glib::Object<GUnixFDList> fds(rawList);
  if (!reply || !fds) {
    // Refused (policy) or gone: sleep simply is not delayed.
    PXLogWithLevel(
        PXLogLevel::Warning,
        "PXKit: the login manager gave no sleep delay, so will-sleep observers may be cut short: %s",
        error ? error->message : "no descriptor in the reply");
    return;
  }
  gint32 index = -1;
  g_variant_get(reply.get(), "(h)", &index);
  const int fd = g_unix_fd_list_get(fds.get(), index, pxkit::glib::out(error));  // our own duplicate
  if (fd < 0) {
    PXLogWithLevel(PXLogLevel::Warning, "PXKit: cannot take the login manager's sleep delay: %s",
                   error ? error->message : "no such descriptor");
    return;
  }
  if (watch.preparingForSleep || !watch.bus || watch.inhibitor >= 0) {
    close(fd);  // the moment it was for has passed
    return;
  }
  watch.inhibitor = fd;
  watch.holdsInhibitor.store(true, std::memory_order_release);
}

void takeInhibitor() {
  SleepWatch& watch = sleepWatch();
  if (!watch.bus || watch.inhibitor >= 0 || watch.inhibitPending) return;
  watch.inhibitPending = true;
  PXString who = PXBundle::mainBundle()->bundleIdentifier();
  const char* whoText = who ? who.c_str() : (g_get_prgname() ? g_get_prgname() : "PXKit");
  g_dbus_connection_call_with_unix_fd_list(
      watch.bus.get(), kLogindName, kLogindPath, kLogindManager, "Inhibit",
      g_variant_new("(ssss)", "sleep", whoText, "Saving the application's state before sleep", "delay"),
      G_VARIANT_TYPE("(h)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr, onInhibitReply, nullptr);
}

void onPrepareForSleep(const pxkit::internal::SystemBusSignal& signal) {
  if (!g_variant_is_of_type(signal.parameters, G_VARIANT_TYPE("(b)"))) return;
  gboolean goingToSleep = FALSE;
  g_variant_get(signal.parameters, "(b)", &goingToSleep);
  SleepWatch& watch = sleepWatch();
  PXWorkspace* workspace = PXWorkspace::sharedWorkspace();
  if (goingToSleep) {
    watch.preparingForSleep = true;
    workspace->notificationCenter()->postNotificationName(kPXWorkspaceWillSleepNotification, workspace);
    releaseInhibitor();  // observers have had their moment: let the machine sleep
  } else {
    watch.preparingForSleep = false;
    workspace->notificationCenter()->postNotificationName(kPXWorkspaceDidWakeNotification, workspace);
    takeInhibitor();  // for the next sleep
  }
}

void startSleepWatchOnce() {
  pxkit::internal::SystemBusWatcher watcher;
  watcher.busName = kLogindName;
  watcher.signals = {{kLogindManager, "PrepareForSleep", kLogindPath}};
  watcher.signal = onPrepareForSleep;
  watcher.nameAppeared = [](GDBusConnection* bus, const char*) {
    sleepWatch().bus = pxkit::glib::ref(bus);
    takeInhibitor();
  };
  watcher.nameVanished = [] {
    sleepWatch().bus.reset();
    releaseInhibitor();
  };
  SleepWatch& watch = sleepWatch();
  watch.logind = pxkit::internal::SystemBus::watch(std::move(watcher), g_main_context_default());
  watch.started.store(true, std::memory_order_release);
}

// Observing will-sleep or did-wake on the workspace centre starts the watch.
[[maybe_unused]] const bool gSleepSourcesAdded =
    pxkit::internal::addSystemNotificationSource(kPXWorkspaceWillSleepNotification,
                                                 &PXSystemEvents::startSleepWatch) &&
    pxkit::internal::addSystemNotificationSource(kPXWorkspaceDidWakeNotification,
                                                 &PXSystemEvents::startSleepWatch);

}  // namespace

// ---- Interface ------------------------------------------------------------------

void PXSystemEvents::start() {
  startTimeZoneWatch();
  startSleepWatch();
}

void PXSystemEvents::startTimeZoneWatch() {
  std::call_once(gTimeZoneStart, [] {
    const char* overridden = std::getenv(kLocalTimePathVariable);
    std::string path = overridden && *overridden ? overridden : kDefaultLocalTimePath;
    pxkit::internal::runOnContext(
        g_main_context_default(), [path = std::move(path)] { installTimeZoneWatch(path); },
        pxkit::internal::RunOnContextMode::DontWait);
  });
}

void PXSystemEvents::startSleepWatch() {
  // Never blocks: the system bus is reached asynchronously, on the main loop.
  std::call_once(gSleepStart, startSleepWatchOnce);
}

std::string PXSystemEvents::localTimePath() {
  std::lock_guard lock(gPathMutex);
  return timeZoneWatch().path;
}

bool PXSystemEvents::isWatchingTimeZone() {
  return timeZoneWatch().watching.load(std::memory_order_acquire);
}

bool PXSystemEvents::isTimeZoneCheckPending() {
  return timeZoneWatch().checkPending.load(std::memory_order_acquire);
}

PXSystemEvents::SleepWatchState PXSystemEvents::sleepWatchState() {
  SleepWatch& watch = sleepWatch();
  if (!watch.started.load(std::memory_order_acquire)) return SleepWatchState::Stopped;
  switch (watch.logind.state()) {
    case pxkit::internal::SystemBusWatchState::Listening:
      return SleepWatchState::Listening;
    case pxkit::internal::SystemBusWatchState::Unavailable:
      return SleepWatchState::Unavailable;
    case pxkit::internal::SystemBusWatchState::Connecting:
    case pxkit::internal::SystemBusWatchState::Removed:
      break;
  }
  return SleepWatchState::Connecting;
}

bool PXSystemEvents::holdsSleepInhibitor() {
  return sleepWatch().holdsInhibitor.load(std::memory_order_acquire);
}

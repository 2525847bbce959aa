// System events → platform notifications: the time-zone file watch and the
// login manager's sleep signal. See internal/SystemEvents.h for the contract
// and docs/linux-sources.md for where each event comes from.

#include <gio/gunixfdlist.h>
#include <limits.h>
#include <pxkit/platform/PXApplication.h>
#include <pxkit/platform/PXBundle.h>
#include <pxkit/platform/PXCalendar.h>
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
#include "platform/internal/SystemEvents.h"

namespace {

constexpr const char* kDefaultLocalTimePath = "/etc/localtime";
constexpr const char* kLocalTimePathVariable = "PXKIT_LOCALTIME_PATH";

constexpr const char* kLogindName = "org.freedesktop.login1";
constexpr const char* kLogindPath = "/org/freedesktop/login1";
constexpr const char* kLogindManager = "org.freedesktop.login1.Manager";

// Runs `work` on the main context: at once when this thread owns it or can
// take it (GLib then makes it this thread's default for the call, so sources
// made inside attach to it), else at the main loop's next iteration.
void onMainContext(std::function<void()> work) {
  using Work = std::function<void()>;
  g_main_context_invoke_full(
      nullptr, G_PRIORITY_DEFAULT,
      [](gpointer data) -> gboolean {
        (*static_cast<Work*>(data))();
        return G_SOURCE_REMOVE;
      },
      new Work(std::move(work)), [](gpointer data) { delete static_cast<Work*>(data); });
}

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
void installTimeZoneWatch(std::string path) {
  TimeZoneWatch& watch = timeZoneWatch();
  {
    std::lock_guard lock(gPathMutex);
    watch.path = std::move(path);
  }
  watch.fingerprint = readZoneFingerprint(watch.path);
  pxkit::glib::Object<GFile> file(g_file_new_for_path(watch.path.c_str()));
  // WATCH_MOVES: a swap by rename into place arrives as one event. A missing
  // directory gives no monitor, and so no notifications; nothing else fails.
  watch.monitor.reset(g_file_monitor_file(file.get(), G_FILE_MONITOR_WATCH_MOVES, nullptr, nullptr));
  if (!watch.monitor) return;
  g_signal_connect(watch.monitor.get(), "changed", G_CALLBACK(onLocalTimeEvent), nullptr);
  watch.watching.store(true, std::memory_order_release);
}

// ---- Sleep and wake ---------------------------------------------------------------

struct SleepWatch {
  std::atomic<PXSystemEvents::SleepWatchState> state{PXSystemEvents::SleepWatchState::Stopped};
  std::atomic<bool> holdsInhibitor{false};
  // Main context only:
  pxkit::glib::Object<GDBusConnection> bus;
  int inhibitor = -1;  // the delay inhibitor's descriptor; closing it releases it
  bool inhibitPending = false;
  bool preparingForSleep = false;
  bool logindPresent = false;
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
  pxkit::glib::Variant reply(
      g_dbus_connection_call_with_unix_fd_list_finish(G_DBUS_CONNECTION(source), &rawList, result, nullptr));
  pxkit::glib::Object<GUnixFDList> fds(rawList);
  if (!reply || !fds) return;  // refused (policy) or gone: sleep simply is not delayed
  gint32 index = -1;
  g_variant_get(reply.get(), "(h)", &index);
  const int fd = g_unix_fd_list_get(fds.get(), index, nullptr);  // our own duplicate
  if (fd < 0) return;
  if (watch.preparingForSleep || !watch.logindPresent || watch.inhibitor >= 0) {
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

void onPrepareForSleep(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                       GVariant* parameters, gpointer) {
  if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(b)"))) return;
  gboolean goingToSleep = FALSE;
  g_variant_get(parameters, "(b)", &goingToSleep);
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

void onLogindAppeared(GDBusConnection*, const gchar*, const gchar*, gpointer) {
  sleepWatch().logindPresent = true;
  takeInhibitor();
}

void onLogindVanished(GDBusConnection*, const gchar*, gpointer) {
  sleepWatch().logindPresent = false;
  releaseInhibitor();
}

void onBusReady(GObject*, GAsyncResult* result, gpointer) {
  SleepWatch& watch = sleepWatch();
  pxkit::glib::Error error;
  watch.bus.reset(g_bus_get_finish(result, pxkit::glib::out(error)));
  if (!watch.bus) {
    // No system bus (containers, CI, minimal systems): there are no sleep events
    // to hear, which is not an error of the host's.
    g_debug("PXKit: no system bus, so no sleep and wake notifications: %s", error ? error->message : "");
    watch.state.store(PXSystemEvents::SleepWatchState::Unavailable, std::memory_order_release);
    return;
  }
  g_dbus_connection_signal_subscribe(watch.bus.get(), kLogindName, kLogindManager, "PrepareForSleep",
                                     kLogindPath, nullptr, G_DBUS_SIGNAL_FLAGS_NONE, onPrepareForSleep,
                                     nullptr, nullptr);
  g_bus_watch_name_on_connection(watch.bus.get(), kLogindName, G_BUS_NAME_WATCHER_FLAGS_NONE,
                                 onLogindAppeared, onLogindVanished, nullptr, nullptr);
  // The subscription's match rule is sent without a reply; the answer to any
  // later call on the connection proves the bus daemon has applied it.
  g_dbus_connection_call(
      watch.bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId",
      nullptr, G_VARIANT_TYPE("(s)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
      [](GObject* source, GAsyncResult* reply, gpointer) {
        pxkit::glib::Variant ignored(
            g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), reply, nullptr));
        sleepWatch().state.store(PXSystemEvents::SleepWatchState::Listening, std::memory_order_release);
      },
      nullptr);
}

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
    onMainContext([path = std::move(path)]() mutable { installTimeZoneWatch(std::move(path)); });
  });
}

void PXSystemEvents::startSleepWatch() {
  std::call_once(gSleepStart, [] {
    sleepWatch().state.store(SleepWatchState::Connecting, std::memory_order_release);
    // Asynchronous: with no system bus the answer comes back on the main loop
    // later, and the caller never waits for it.
    onMainContext([] { g_bus_get(G_BUS_TYPE_SYSTEM, nullptr, onBusReady, nullptr); });
  });
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
  return sleepWatch().state.load(std::memory_order_acquire);
}

bool PXSystemEvents::holdsSleepInhibitor() {
  return sleepWatch().holdsInhibitor.load(std::memory_order_acquire);
}

void pxkit::internal::systemNotificationObserved(std::string_view name) {
  if (name == kPXSystemTimeZoneDidChangeNotification) {
    PXSystemEvents::startTimeZoneWatch();
  } else if (name == kPXWorkspaceDidWakeNotification || name == kPXWorkspaceWillSleepNotification) {
    PXSystemEvents::startSleepWatch();
  } else if (name == kPXApplicationWillTerminateNotification) {
    PXApplication::sharedApplication();  // arranges the last-resort exit handler
  }
}

// The watchers that turn system events into the platform's notifications.
//
//  - The time zone: a file monitor on the local-time file (/etc/localtime, or
//    $PXKIT_LOCALTIME_PATH when set at start) posts
//    kPXSystemTimeZoneDidChangeNotification on the default centre, once per
//    change of what the file says, after tzset() and PXCalendar::resetTimeZone().
//  - Sleep and wake: the login manager's PrepareForSleep signal on the system
//    bus posts kPXWorkspaceWillSleepNotification / kPXWorkspaceDidWakeNotification
//    on the workspace centre; a delay inhibitor gives will-sleep observers their
//    moment before the machine goes down. No system bus, or no login manager
//    on it: no such notifications, no error.
//
// Both run on the main run loop (the global default main context) and post on
// it. They start when someone first observes one of their notifications on its
// centre (each registers itself as the source of its notifications with
// addSystemNotificationSource), or when start() is called; they then run until
// the process ends. The sleep watch is a watcher of the system-bus service
// (SystemBus.h).
// docs/linux-sources.md tells the whole story.
//
// Thread safety: any thread. Starting returns at once: the work is done on the
// main context (inline when the caller may run it, else at its next iteration),
// and the system bus is reached asynchronously.
#pragma once

#include <functional>
#include <string>

class PXNotificationCenter;

namespace pxkit::internal {
// Marks a shared centre (the default one, the workspace's) as one whose
// observers start the sources of the system notifications they observe.
void setAnnouncesSystemEvents(PXNotificationCenter& center);
// Registers `start` as a source of the system notification `name`: it is
// called, on the observing thread, each time an observer registers for `name`
// on a centre marked above (so it must be cheap after its first call). Meant
// for a static initializer next to the code that posts `name`, which thereby
// cannot be left out of a binary that could observe it (the areas are linked
// whole). Returns true, so that it can initialise a constant. Any thread.
bool addSystemNotificationSource(const char* name, std::function<void()> start);
}  // namespace pxkit::internal

class PXSystemEvents {
 public:
  PXSystemEvents() = delete;

  // Starts both watchers (each at most once per process).
  static void start();
  static void startTimeZoneWatch();
  static void startSleepWatch();

  // ---- State, for diagnostics and tests --------------------------------------
  // The local-time file watched (empty before the watch starts).
  static std::string localTimePath();
  // Whether the file monitor is in place.
  static bool isWatchingTimeZone();
  // Whether a look at the local-time file has been scheduled and not yet made.
  static bool isTimeZoneCheckPending();

  enum class SleepWatchState {
    Stopped,      // not started
    Connecting,   // waiting for the system bus
    Listening,    // subscribed to the login manager's sleep signal
    Unavailable,  // no system bus: nothing will be heard
  };
  static SleepWatchState sleepWatchState();
  // Whether the kit holds a sleep delay inhibitor of the login manager.
  static bool holdsSleepInhibitor();
};

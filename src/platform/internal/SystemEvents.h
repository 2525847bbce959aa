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
// centre, or when start() is called; they then run until the process ends.
// docs/linux-sources.md tells the whole story.
//
// Thread safety: any thread. Starting returns at once: the work is done on the
// main context (inline when the caller may run it, else at its next iteration),
// and the system bus is reached asynchronously.
#pragma once

#include <string>
#include <string_view>

class PXNotificationCenter;

namespace pxkit::internal {
// Marks a shared centre whose system notifications start the watchers.
void setAnnouncesSystemEvents(PXNotificationCenter& center);
// Called by such a centre when an observer registers for `name`.
void systemNotificationObserved(std::string_view name);
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

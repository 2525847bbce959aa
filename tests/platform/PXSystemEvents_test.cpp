// System events end to end: dbusmock's login manager on a private system bus for
// sleep and wake, a real local-time file for the time zone. Each case runs in a
// process of its own, so the watchers (which live until the process ends) start fresh.

#include <gtest/gtest.h>
#include <pxkit/platform/PXCalendar.h>
#include <pxkit/platform/PXNotificationCenter.h>
#include <pxkit/platform/PXWorkspace.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "platform/internal/SystemBus.h"
#include "platform/internal/SystemEvents.h"
#include "support/PXDBusMock.h"
#include "support/PXLogCapture.h"
#include "support/PXTempHome.h"

using pxkit::internal::SystemBus;
using pxkit::internal::SystemBusSignal;
using pxkit::internal::SystemBusWatch;
using pxkit::internal::SystemBusWatcher;
using pxkit::internal::SystemBusWatchState;

namespace {

constexpr const char* kLogind = "org.freedesktop.login1";
constexpr const char* kLogindPath = "/org/freedesktop/login1";
constexpr const char* kLogindManager = "org.freedesktop.login1.Manager";
using Lines = std::vector<std::string>;

// The notifications an observer saw, each checked to come from `sender` on the main thread.
struct Heard {
  Lines names;
  PXNotificationBlock recorder(PXObject* sender) {
    return [this, sender, thread = std::this_thread::get_id()](const PXNotification& n) {
      EXPECT_EQ(std::this_thread::get_id(), thread) << "delivered off the main run loop";
      EXPECT_EQ(n.object(), sender);
      names.push_back(n.name().str());
    };
  }
};

// A watcher of the login manager that counts whatever it is told.
SystemBusWatcher countingWatcher(int* told) {
  SystemBusWatcher w;
  w.busName = kLogind;
  w.signals = {{kLogindManager, "PrepareForSleep", kLogindPath}};
  w.nameAppeared = [told](GDBusConnection*, const char*) { ++*told; };
  w.nameVanished = [told] { ++*told; };
  w.signal = [told](const SystemBusSignal&) { ++*told; };
  return w;
}

// The inhibitors the mock login manager holds, as "what/mode" texts.
Lines inhibitors(PXDBusMock& bus) {
  Lines list;
  pxkit::glib::Variant reply = bus.call(kLogind, kLogindPath, kLogindManager, "ListInhibitors");
  if (!reply) return list;
  GVariantIter* rawIter = nullptr;
  g_variant_get(reply.get(), "(a(ssssuu))", &rawIter);
  pxkit::glib::VariantIter iter(rawIter);
  const char *what, *who, *why, *mode;
  guint32 uid, pid;
  while (g_variant_iter_next(iter.get(), "(&s&s&s&suu)", &what, &who, &why, &mode, &uid, &pid))
    list.push_back(std::string(what) + "/" + mode);
  return list;
}

}  // namespace

// ---- Sleep and wake ---------------------------------------------------------------

class PXSystemEventsLogind : public ::testing::Test {
 protected:
  void SetUp() override {
    PX_SKIP_WITHOUT_DBUS_MOCK();
    bus_ = std::make_unique<PXDBusMock>();
    ASSERT_TRUE(bus_->isUp());
    std::string error;
    ASSERT_TRUE(bus_->startTemplate("logind", kLogind, {}, &error)) << error;
  }
  bool emitPrepareForSleep(bool goingToSleep) {
    std::string error;
    const bool sent = bus_->emitSignal(kLogind, kLogindPath, kLogindManager, "PrepareForSleep", "b",
                                       {g_variant_new_boolean(goingToSleep)}, &error);
    EXPECT_TRUE(sent) << error;
    return sent;
  }

  PXTempHome home_;
  std::unique_ptr<PXDBusMock> bus_;
};

// Wake, sleep, wake: each signal is one notification on the workspace's
// center (not the default one), on the main thread; the delay inhibitor is
// let go for the sleep and taken again on wake.
TEST_F(PXSystemEventsLogind, PrepareForSleepPostsOnTheMainLoopAndMovesTheDelayInhibitor) {
  Heard heard, onDefault;
  PXNotificationCenter::defaultCenter()->addObserverForName(kPXWorkspaceDidWakeNotification, nullptr, nullptr,
                                                            onDefault.recorder(nullptr));
  PXNotificationCenter* center = PXWorkspace::sharedWorkspace()->notificationCenter();
  for (const char* name : {kPXWorkspaceDidWakeNotification, kPXWorkspaceWillSleepNotification})
    center->addObserverForName(name, nullptr, nullptr, heard.recorder(PXWorkspace::sharedWorkspace()));
  ASSERT_TRUE(PXIterateMainContextUntil([] {
    return PXSystemEvents::sleepWatchState() == PXSystemEvents::SleepWatchState::Listening &&
           PXSystemEvents::holdsSleepInhibitor();
  }));
  EXPECT_EQ(inhibitors(*bus_), (Lines{"sleep/delay"}));

  // Signals arrive in order: once one is heard, a duplicate of the one before would have been too.
  ASSERT_TRUE(emitPrepareForSleep(false));
  ASSERT_TRUE(PXIterateMainContextUntil([&] { return heard.names.size() == 1; }));
  ASSERT_TRUE(emitPrepareForSleep(true));
  ASSERT_TRUE(PXIterateMainContextUntil([&] { return heard.names.size() == 2; }));
  EXPECT_FALSE(PXSystemEvents::holdsSleepInhibitor());
  // The mock notices the dropped inhibitor in its main loop; each call is a round trip through it.
  bool released = false;
  for (int attempt = 0; attempt < 1000 && !released; ++attempt) released = inhibitors(*bus_).empty();
  EXPECT_TRUE(released) << "the login manager still sees our inhibitor";

  ASSERT_TRUE(emitPrepareForSleep(false));
  ASSERT_TRUE(PXIterateMainContextUntil([] { return PXSystemEvents::holdsSleepInhibitor(); }));
  EXPECT_EQ(inhibitors(*bus_), (Lines{"sleep/delay"}));
  ASSERT_TRUE(PXIterateMainContextUntil([&] { return heard.names.size() == 3; }));
  EXPECT_EQ(heard.names, (Lines{kPXWorkspaceDidWakeNotification, kPXWorkspaceWillSleepNotification,
                                kPXWorkspaceDidWakeNotification}));
  EXPECT_TRUE(onDefault.names.empty());
}

TEST(PXSystemBus, NoSystemBusMeansUnavailableWatchersNoEventsNoWarningAndNoWait) {
  PXTempHome home;
  setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + home.runtimeDir() + "/no-bus-here").c_str(), 1);
  g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_LEVEL_WARNING | G_LOG_LEVEL_CRITICAL));
  unsetenv("PXKIT_LOCALTIME_PATH");
  PXLogCapture log;
  // Each watcher starts when its notification is first observed.
  EXPECT_FALSE(PXSystemEvents::isWatchingTimeZone());
  EXPECT_EQ(PXSystemEvents::sleepWatchState(), PXSystemEvents::SleepWatchState::Stopped);
  PXWorkspace::sharedWorkspace()->notificationCenter()->addObserverForName(
      kPXWorkspaceDidWakeNotification, nullptr, nullptr, [](const PXNotification&) { ADD_FAILURE(); });
  EXPECT_NE(PXSystemEvents::sleepWatchState(), PXSystemEvents::SleepWatchState::Stopped);
  EXPECT_FALSE(PXSystemEvents::isWatchingTimeZone());
  PXNotificationCenter::defaultCenter()->addObserverForName(kPXSystemTimeZoneDidChangeNotification, nullptr,
                                                            nullptr, [](const PXNotification&) {});
  EXPECT_TRUE(PXSystemEvents::isWatchingTimeZone());
  EXPECT_EQ(PXSystemEvents::localTimePath(), "/etc/localtime");  // without the test's override
  PXSystemEvents::start();                                       // starts what is not started yet
  int told = 0;
  SystemBusWatch first = SystemBus::watch(countingWatcher(&told));
  // The bus is looked for asynchronously: start() and watch() have returned before the answer.
  EXPECT_EQ(first.state(), SystemBusWatchState::Connecting);
  EXPECT_EQ(PXSystemEvents::sleepWatchState(), PXSystemEvents::SleepWatchState::Connecting);
  ASSERT_TRUE(PXIterateMainContextUntil([&] {
    return first.state() == SystemBusWatchState::Unavailable &&
           PXSystemEvents::sleepWatchState() == PXSystemEvents::SleepWatchState::Unavailable;
  }));
  // Known by now: a later watcher is unavailable at once.
  SystemBusWatch second = SystemBus::watch(countingWatcher(&told));
  EXPECT_EQ(second.state(), SystemBusWatchState::Unavailable);
  while (g_main_context_iteration(nullptr, FALSE)) {
  }
  EXPECT_EQ(told, 0);
  EXPECT_FALSE(PXSystemEvents::holdsSleepInhibitor());
  EXPECT_TRUE(log.lines(PXLogLevel::Notice).empty());
  EXPECT_FALSE(SystemBus::watch(SystemBusWatcher{}));  // no bus name: nothing registered
}

// Removing a watcher from another thread while its callback runs returns only
// once the callback has.
TEST_F(PXSystemEventsLogind, RemovingAWatcherFromAnotherThreadWaitsForItsRunningCallback) {
  std::atomic<bool> entered{false}, removing{false}, finished{false}, finishedWhenRemoved{false};
  SystemBusWatcher watcher;
  watcher.busName = kLogind;
  watcher.signals = {{kLogindManager, "PrepareForSleep", kLogindPath}};
  watcher.signal = [&](const SystemBusSignal&) {
    entered = true;
    while (!removing) std::this_thread::yield();
    finished = true;
  };
  SystemBusWatch watch = SystemBus::watch(std::move(watcher));
  ASSERT_TRUE(PXIterateMainContextUntil([&] { return watch.state() == SystemBusWatchState::Listening; }));
  std::thread remover([&] {
    while (!entered) std::this_thread::yield();
    removing = true;
    watch.reset();
    finishedWhenRemoved = finished.load();
  });
  EXPECT_TRUE(emitPrepareForSleep(true) && PXIterateMainContextUntil([&] { return finished.load(); }));
  entered = true;  // lets the remover go even when nothing came
  remover.join();
  EXPECT_TRUE(finishedWhenRemoved) << "reset() returned while the callback was still running";
}

// ---- Time zone --------------------------------------------------------------------

// Each way a tool replaces the local-time file posts once, after which the
// calendar already follows; the same zone put back posts nothing.
TEST(PXSystemEvents, EachTimeZoneChangePostsOnceAndTheCalendarFollows) {
  auto zone = [](const char* name) { return std::string("/usr/share/zoneinfo/") + name; };
  for (const char* name : {"Etc/UTC", "America/New_York", "Asia/Tokyo"}) {
    if (!g_file_test(zone(name).c_str(), G_FILE_TEST_EXISTS)) GTEST_SKIP() << "tzdata lacks " << name;
  }
  const PXDate january = PXDate::dateWithTimeIntervalSince1970(1736942400);  // no daylight-saving time
  PXTempHome home;
  const std::string localtime = home.makeDirectory("etc") + "/localtime";
  // A regular file overwritten in place, in pieces (cp over it).
  auto rewrite = [&](const char* name) {
    gchar* data = nullptr;
    gsize size = 0;
    ASSERT_TRUE(g_file_get_contents(zone(name).c_str(), &data, &size, nullptr));
    FILE* out = fopen(localtime.c_str(), "w");
    ASSERT_NE(out, nullptr);
    for (gsize done = 0; done < size; done += 64) {
      fwrite(data + done, 1, std::min<gsize>(64, size - done), out);
      fflush(out);
    }
    fclose(out);
    g_free(data);
  };
  // A symlink to a temporary name renamed over the file (timedatectl).
  auto swap = [&](const char* name) {
    ASSERT_EQ(symlink(zone(name).c_str(), (localtime + ".new").c_str()), 0);
    ASSERT_EQ(rename((localtime + ".new").c_str(), localtime.c_str()), 0);
  };
  rewrite("Etc/UTC");
  setenv("PXKIT_LOCALTIME_PATH", localtime.c_str(), 1);
  setenv("TZ", (":" + localtime).c_str(), 1);  // the calendar reads the same file
  PXCalendar::resetTimeZone();
  ASSERT_EQ(PXCalendar::secondsFromGMT(january), 0);
  std::vector<int> offsetsSeen;  // the calendar's offset as each observer call saw it
  std::thread::id mainThread = std::this_thread::get_id();
  PXNotificationCenter::defaultCenter()->addObserverForName(
      kPXSystemTimeZoneDidChangeNotification, nullptr, nullptr, [&](const PXNotification& n) {
        EXPECT_EQ(n.object(), nullptr);
        EXPECT_EQ(std::this_thread::get_id(), mainThread);
        offsetsSeen.push_back(PXCalendar::secondsFromGMT(january));
      });
  // Observing started the watch, here on the main thread, at once.
  ASSERT_TRUE(PXSystemEvents::isWatchingTimeZone());
  EXPECT_EQ(PXSystemEvents::localTimePath(), localtime);

  rewrite("America/New_York");
  ASSERT_TRUE(PXIterateMainContextUntil([&] { return offsetsSeen.size() >= 1; }));
  ASSERT_EQ(unlink(localtime.c_str()), 0);  // a hand-made change: rm, then ln -s
  ASSERT_EQ(symlink(zone("Asia/Tokyo").c_str(), localtime.c_str()), 0);
  ASSERT_TRUE(PXIterateMainContextUntil([&] { return offsetsSeen.size() >= 2; }));
  swap("Etc/UTC");
  ASSERT_TRUE(PXIterateMainContextUntil([&] { return offsetsSeen.size() >= 3; }));
  swap("Etc/UTC");  // events, and a look at the file, but no change
  ASSERT_TRUE(PXIterateMainContextUntil([] { return PXSystemEvents::isTimeZoneCheckPending(); }));
  ASSERT_TRUE(PXIterateMainContextUntil([] { return !PXSystemEvents::isTimeZoneCheckPending(); }));
  // A duplicate of any change would show up as a repeated entry before the next one.
  EXPECT_EQ(offsetsSeen, (std::vector<int>{-5 * 3600, 9 * 3600, 0}));
  EXPECT_EQ(PXCalendar::secondsFromGMT(january), 0);
}

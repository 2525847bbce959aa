// System events end to end: a private system bus with dbusmock's login
// manager for sleep and wake, and a real local-time symlink in a temporary
// directory for the time zone. Every case runs in a process of its own, so the
// watchers (which live until the process ends) start fresh in each.

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

namespace {

constexpr const char* kLogind = "org.freedesktop.login1";
constexpr const char* kLogindPath = "/org/freedesktop/login1";
constexpr const char* kLogindManager = "org.freedesktop.login1.Manager";

// What an observer saw.
struct Heard {
  std::vector<std::string> names;
  std::vector<std::thread::id> threads;
  std::vector<PXObject*> senders;

  PXNotificationBlock recorder() {
    return [this](const PXNotification& n) {
      names.push_back(n.name().str());
      threads.push_back(std::this_thread::get_id());
      senders.push_back(n.object());
    };
  }
  size_t count(const char* name) const {
    return static_cast<size_t>(std::count(names.begin(), names.end(), name));
  }
};

// The inhibitors the mock login manager holds, as "what/mode" texts.
std::vector<std::string> inhibitors(PXDBusMock& bus) {
  std::vector<std::string> list;
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

// The mock notices a dropped inhibitor when its main loop sees the pipe close;
// ask again until it has (each call is a round trip through that loop).
bool mockInhibitorsBecome(PXDBusMock& bus, const std::vector<std::string>& expected) {
  for (int attempt = 0; attempt < 1000; ++attempt) {
    if (inhibitors(bus) == expected) return true;
  }
  return false;
}

bool emitPrepareForSleep(PXDBusMock& bus, bool goingToSleep) {
  std::string error;
  const bool sent = bus.emitSignal(kLogind, kLogindPath, kLogindManager, "PrepareForSleep", "b",
                                   {g_variant_new_boolean(goingToSleep)}, &error);
  EXPECT_TRUE(sent) << error;
  return sent;
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

  // Observes both workspace notifications (which starts the listener) and
  // waits until it listens and holds its delay inhibitor.
  void observeAndWaitForListener() {
    PXNotificationCenter* center = PXWorkspace::sharedWorkspace()->notificationCenter();
    center->addObserverForName(kPXWorkspaceDidWakeNotification, nullptr, nullptr, heard_.recorder());
    center->addObserverForName(kPXWorkspaceWillSleepNotification, nullptr, nullptr, heard_.recorder());
    ASSERT_TRUE(PXIterateMainContextUntil([] {
      return PXSystemEvents::sleepWatchState() == PXSystemEvents::SleepWatchState::Listening &&
             PXSystemEvents::holdsSleepInhibitor();
    }));
  }

  PXTempHome home_;
  std::unique_ptr<PXDBusMock> bus_;
  Heard heard_;
};

// Wake, sleep, wake: each signal is one notification on the workspace's
// center (not the default one), on the main thread; the delay inhibitor is
// let go for the sleep and taken again on wake.
TEST_F(PXSystemEventsLogind, PrepareForSleepPostsOnTheMainLoopAndMovesTheDelayInhibitor) {
  Heard onDefault;
  PXNotificationCenter::defaultCenter()->addObserverForName(kPXWorkspaceDidWakeNotification, nullptr, nullptr,
                                                            onDefault.recorder());
  observeAndWaitForListener();
  ASSERT_TRUE(heard_.names.empty());
  EXPECT_EQ(inhibitors(*bus_), (std::vector<std::string>{"sleep/delay"}));

  ASSERT_TRUE(emitPrepareForSleep(*bus_, false));
  ASSERT_TRUE(PXIterateMainContextUntil([&] { return heard_.count(kPXWorkspaceDidWakeNotification) == 1; }));
  // Signals arrive in order: once will-sleep is heard, any second wake would have been too.
  ASSERT_TRUE(emitPrepareForSleep(*bus_, true));
  ASSERT_TRUE(
      PXIterateMainContextUntil([&] { return heard_.count(kPXWorkspaceWillSleepNotification) == 1; }));
  EXPECT_FALSE(PXSystemEvents::holdsSleepInhibitor());
  EXPECT_TRUE(mockInhibitorsBecome(*bus_, {})) << "the login manager still sees our inhibitor";

  ASSERT_TRUE(emitPrepareForSleep(*bus_, false));
  ASSERT_TRUE(PXIterateMainContextUntil([] { return PXSystemEvents::holdsSleepInhibitor(); }));
  EXPECT_EQ(inhibitors(*bus_), (std::vector<std::string>{"sleep/delay"}));
  ASSERT_TRUE(PXIterateMainContextUntil([&] { return heard_.count(kPXWorkspaceDidWakeNotification) == 2; }));
  EXPECT_EQ(heard_.names,
            (std::vector<std::string>{kPXWorkspaceDidWakeNotification, kPXWorkspaceWillSleepNotification,
                                      kPXWorkspaceDidWakeNotification}));
  for (size_t i = 0; i < heard_.names.size(); ++i) {
    EXPECT_EQ(heard_.threads[i], std::this_thread::get_id()) << "delivered off the main run loop";
    EXPECT_EQ(heard_.senders[i], PXWorkspace::sharedWorkspace());
  }
  EXPECT_TRUE(onDefault.names.empty());
}

TEST(PXSystemEvents, BusWithoutLoginManagerListensQuietly) {
  PX_SKIP_WITHOUT_DBUS_MOCK();
  PXTempHome home;
  PXDBusMock bus;
  ASSERT_TRUE(bus.isUp());
  PXLogCapture log;
  PXSystemEvents::startSleepWatch();
  ASSERT_TRUE(PXIterateMainContextUntil(
      [] { return PXSystemEvents::sleepWatchState() == PXSystemEvents::SleepWatchState::Listening; }));
  EXPECT_FALSE(PXSystemEvents::holdsSleepInhibitor());
  EXPECT_TRUE(log.lines(PXLogLevel::Notice).empty());
}

// ---- The system-bus service: watchers by registration -------------------------------

namespace {

using pxkit::internal::SystemBus;
using pxkit::internal::SystemBusSignal;
using pxkit::internal::SystemBusWatch;
using pxkit::internal::SystemBusWatcher;
using pxkit::internal::SystemBusWatchState;

// What one watcher of the login manager was told, in order.
struct Told {
  std::vector<std::string> events;  // "appeared", "vanished", "sleep:1", "sleep:0"
  std::vector<std::thread::id> threads;

  SystemBusWatcher watcher() {
    SystemBusWatcher w;
    w.busName = kLogind;
    w.signals = {{kLogindManager, "PrepareForSleep", kLogindPath}};
    w.nameAppeared = [this](GDBusConnection* bus, const char* owner) {
      EXPECT_NE(bus, nullptr);
      EXPECT_EQ(owner[0], ':') << "not a unique name: " << owner;
      record("appeared");
    };
    w.nameVanished = [this] { record("vanished"); };
    w.signal = [this](const SystemBusSignal& signal) {
      EXPECT_STREQ(signal.interface, kLogindManager);
      EXPECT_STREQ(signal.member, "PrepareForSleep");
      EXPECT_STREQ(signal.path, kLogindPath);
      gboolean sleeping = FALSE;
      g_variant_get(signal.parameters, "(b)", &sleeping);
      record(sleeping ? "sleep:1" : "sleep:0");
    };
    return w;
  }
  void record(const char* event) {
    events.emplace_back(event);
    threads.push_back(std::this_thread::get_id());
  }
  size_t count(const char* event) const {
    return static_cast<size_t>(std::count(events.begin(), events.end(), event));
  }
};

bool listening(const SystemBusWatch& watch) {
  return watch.state() == SystemBusWatchState::Listening;
}

}  // namespace

using PXSystemBusLogind = PXSystemEventsLogind;

TEST_F(PXSystemBusLogind, AWatcherHearsItsNameAndSignalsOnItsContextsThreadUntilTheNameVanishes) {
  Told told;
  SystemBusWatch watch = SystemBus::watch(told.watcher());
  EXPECT_EQ(watch.state(), SystemBusWatchState::Connecting) << "registering waited for the bus";
  // Another watcher, registered from this thread for a context that only a worker runs.
  pxkit::glib::MainContext context(g_main_context_new());
  pxkit::glib::MainLoop loop(g_main_loop_new(context.get(), FALSE));
  std::thread::id heardOn;
  SystemBusWatcher other;
  other.busName = kLogind;
  other.nameAppeared = [&](GDBusConnection*, const char*) {
    heardOn = std::this_thread::get_id();
    g_main_loop_quit(loop.get());
  };
  SystemBusWatch otherWatch = SystemBus::watch(std::move(other), context.get());
  std::thread worker([&] {
    pxkit::glib::ThreadDefaultContext scope(context.get());
    g_main_loop_run(loop.get());
  });
  const std::thread::id workerID = worker.get_id();
  ASSERT_TRUE(PXIterateMainContextUntil([&] { return listening(watch) && told.count("appeared") == 1; }));
  worker.join();
  EXPECT_EQ(heardOn, workerID);
  otherWatch.reset();

  ASSERT_TRUE(emitPrepareForSleep(*bus_, true));
  ASSERT_TRUE(emitPrepareForSleep(*bus_, false));
  ASSERT_TRUE(PXIterateMainContextUntil([&] { return told.count("sleep:0") == 1; }));
  ASSERT_TRUE(bus_->stopTemplate(kLogind));
  ASSERT_TRUE(PXIterateMainContextUntil([&] { return told.count("vanished") == 1; }));

  EXPECT_EQ(told.events, (std::vector<std::string>{"appeared", "sleep:1", "sleep:0", "vanished"}));
  for (std::thread::id thread : told.threads) EXPECT_EQ(thread, std::this_thread::get_id());
}

TEST_F(PXSystemBusLogind, AWatchRemovedDuringDeliveryHearsNothingMore) {
  Told removedInside, bystander;
  SystemBusWatch bystanderWatch = SystemBus::watch(bystander.watcher());
  SystemBusWatch watch;
  SystemBusWatcher watcher = removedInside.watcher();
  auto record = watcher.signal;
  watcher.signal = [&, record](const SystemBusSignal& signal) {
    record(signal);
    watch.reset();  // from inside its own callback
    EXPECT_EQ(watch.state(), SystemBusWatchState::Removed);
  };
  watch = SystemBus::watch(std::move(watcher));
  ASSERT_TRUE(PXIterateMainContextUntil(
      [&] { return listening(watch) && listening(bystanderWatch) && removedInside.count("appeared") == 1; }));

  ASSERT_TRUE(emitPrepareForSleep(*bus_, true));
  ASSERT_TRUE(emitPrepareForSleep(*bus_, false));
  ASSERT_TRUE(bus_->stopTemplate(kLogind));
  // The bystander hears everything: by then the removed watch would have too.
  ASSERT_TRUE(PXIterateMainContextUntil([&] { return bystander.count("vanished") == 1; }));
  EXPECT_EQ(bystander.events, (std::vector<std::string>{"appeared", "sleep:1", "sleep:0", "vanished"}));
  EXPECT_EQ(removedInside.events, (std::vector<std::string>{"appeared", "sleep:1"}));
}

TEST_F(PXSystemBusLogind, RemovalFromAnotherThreadWaitsForTheRunningCallback) {
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
  ASSERT_TRUE(PXIterateMainContextUntil([&] { return listening(watch); }));
  std::thread remover([&] {
    while (!entered) std::this_thread::yield();
    removing = true;
    watch.reset();
    finishedWhenRemoved = finished.load();
  });
  ASSERT_TRUE(emitPrepareForSleep(*bus_, true));
  ASSERT_TRUE(PXIterateMainContextUntil([&] { return finished.load(); }));
  remover.join();
  EXPECT_TRUE(finishedWhenRemoved) << "reset() returned while the callback was still running";
}

TEST(PXSystemBus, NoSystemBusMeansUnavailableWatchersNoEventsNoWarningAndNoWait) {
  PXTempHome home;
  setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + home.runtimeDir() + "/no-bus-here").c_str(), 1);
  g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_LEVEL_WARNING | G_LOG_LEVEL_CRITICAL));
  unsetenv("PXKIT_LOCALTIME_PATH");
  PXLogCapture log;
  Heard heard;
  // Each watcher starts when its notification is first observed (other names,
  // any name and private centres start nothing: see PXNotificationCenter's tests).
  EXPECT_FALSE(PXSystemEvents::isWatchingTimeZone());
  EXPECT_EQ(PXSystemEvents::sleepWatchState(), PXSystemEvents::SleepWatchState::Stopped);
  PXWorkspace::sharedWorkspace()->notificationCenter()->addObserverForName(
      kPXWorkspaceDidWakeNotification, nullptr, nullptr, heard.recorder());
  EXPECT_NE(PXSystemEvents::sleepWatchState(), PXSystemEvents::SleepWatchState::Stopped);
  EXPECT_FALSE(PXSystemEvents::isWatchingTimeZone());
  PXNotificationCenter::defaultCenter()->addObserverForName(kPXSystemTimeZoneDidChangeNotification, nullptr,
                                                            nullptr, [](const PXNotification&) {});
  EXPECT_TRUE(PXSystemEvents::isWatchingTimeZone());
  EXPECT_EQ(PXSystemEvents::localTimePath(), "/etc/localtime");  // without the test's override
  PXSystemEvents::start();                                       // starts what is not started yet
  Told early, late;
  SystemBusWatch first = SystemBus::watch(early.watcher());
  // The bus is looked for asynchronously: start() and watch() have returned before the answer.
  EXPECT_EQ(first.state(), SystemBusWatchState::Connecting);
  EXPECT_EQ(PXSystemEvents::sleepWatchState(), PXSystemEvents::SleepWatchState::Connecting);
  ASSERT_TRUE(PXIterateMainContextUntil([&] { return first.state() == SystemBusWatchState::Unavailable; }));
  ASSERT_TRUE(PXIterateMainContextUntil(
      [] { return PXSystemEvents::sleepWatchState() == PXSystemEvents::SleepWatchState::Unavailable; }));
  // Known by now: a later watcher is unavailable at once.
  SystemBusWatch second = SystemBus::watch(late.watcher());
  EXPECT_EQ(second.state(), SystemBusWatchState::Unavailable);
  while (g_main_context_iteration(nullptr, FALSE)) {
  }
  EXPECT_TRUE(early.events.empty());
  EXPECT_TRUE(late.events.empty());
  EXPECT_TRUE(heard.names.empty());
  EXPECT_FALSE(PXSystemEvents::holdsSleepInhibitor());
  EXPECT_TRUE(log.lines(PXLogLevel::Notice).empty());
  EXPECT_FALSE(SystemBus::watch(SystemBusWatcher{}));  // no bus name: nothing registered
}

// ---- Time zone --------------------------------------------------------------------

namespace {

constexpr const char* kZoneDir = "/usr/share/zoneinfo";
// A January moment, so that no zone below is in daylight-saving time.
const PXDate kJanuary = PXDate::dateWithTimeIntervalSince1970(1736942400);  // 2025-01-15 12:00 UTC

std::string zoneFile(const char* name) {
  return std::string(kZoneDir) + "/" + name;
}

// How a tool replaces the local-time file.
enum class Change {
  AtomicSymlinkSwap,   // symlink to a temporary name, rename over (timedatectl)
  RemoveThenSymlink,   // rm, then ln -s (a hand-made change)
  RewriteRegularFile,  // a regular file overwritten in place, in pieces (cp over it)
};

void changeZone(const std::string& localtime, const char* zone, Change how) {
  switch (how) {
    case Change::AtomicSymlinkSwap: {
      const std::string temporary = localtime + ".new";
      ASSERT_EQ(symlink(zoneFile(zone).c_str(), temporary.c_str()), 0);
      ASSERT_EQ(rename(temporary.c_str(), localtime.c_str()), 0);
      break;
    }
    case Change::RemoveThenSymlink:
      ASSERT_EQ(unlink(localtime.c_str()), 0);
      ASSERT_EQ(symlink(zoneFile(zone).c_str(), localtime.c_str()), 0);
      break;
    case Change::RewriteRegularFile: {
      gchar* data = nullptr;
      gsize size = 0;
      ASSERT_TRUE(g_file_get_contents(zoneFile(zone).c_str(), &data, &size, nullptr));
      FILE* out = fopen(localtime.c_str(), "w");
      ASSERT_NE(out, nullptr);
      for (gsize done = 0; done < size; done += 64) {
        fwrite(data + done, 1, std::min<gsize>(64, size - done), out);
        fflush(out);
      }
      fclose(out);
      g_free(data);
      break;
    }
  }
}

}  // namespace

class PXSystemEventsTimeZone : public ::testing::TestWithParam<Change> {
 protected:
  void SetUp() override {
    for (const char* zone : {"Etc/UTC", "America/New_York", "Asia/Tokyo"}) {
      if (!g_file_test(zoneFile(zone).c_str(), G_FILE_TEST_EXISTS)) GTEST_SKIP() << "tzdata lacks " << zone;
    }
    localtime_ = home_.makeDirectory("etc") + "/localtime";
    if (GetParam() == Change::RewriteRegularFile) {
      changeZone(localtime_, "Etc/UTC", Change::RewriteRegularFile);
    } else {
      ASSERT_EQ(symlink(zoneFile("Etc/UTC").c_str(), localtime_.c_str()), 0);
    }
    setenv("PXKIT_LOCALTIME_PATH", localtime_.c_str(), 1);
    // The calendar reads the same file, so it can be seen to follow.
    setenv("TZ", (":" + localtime_).c_str(), 1);
    PXCalendar::resetTimeZone();
  }

  PXTempHome home_;
  std::string localtime_;
};

TEST_P(PXSystemEventsTimeZone, EachChangePostsOnceAndTheCalendarFollows) {
  ASSERT_EQ(PXCalendar::secondsFromGMT(kJanuary), 0);
  std::vector<int> offsetsSeen;  // the calendar's offset as each observer call saw it
  std::vector<std::thread::id> threads;
  PXNotificationCenter::defaultCenter()->addObserverForName(
      kPXSystemTimeZoneDidChangeNotification, nullptr, nullptr, [&](const PXNotification& n) {
        EXPECT_EQ(n.object(), nullptr);
        offsetsSeen.push_back(PXCalendar::secondsFromGMT(kJanuary));
        threads.push_back(std::this_thread::get_id());
      });
  // Observing started the watch, here on the main thread, at once.
  ASSERT_TRUE(PXSystemEvents::isWatchingTimeZone());
  EXPECT_EQ(PXSystemEvents::localTimePath(), localtime_);

  changeZone(localtime_, "America/New_York", GetParam());
  ASSERT_TRUE(PXIterateMainContextUntil([&] { return offsetsSeen.size() >= 1; }));
  // A second change: a duplicate of the first would show up as a second
  // New York entry before Tokyo's.
  changeZone(localtime_, "Asia/Tokyo", GetParam());
  ASSERT_TRUE(PXIterateMainContextUntil([&] { return offsetsSeen.size() >= 2; }));

  EXPECT_EQ(offsetsSeen, (std::vector<int>{-5 * 3600, 9 * 3600}));
  for (std::thread::id thread : threads) EXPECT_EQ(thread, std::this_thread::get_id());
  EXPECT_EQ(PXCalendar::secondsFromGMT(kJanuary), 9 * 3600);
}

std::string changeName(const ::testing::TestParamInfo<Change>& info) {
  const char* names[] = {"AtomicSymlinkSwap", "RemoveThenSymlink", "RewriteRegularFile"};
  return names[static_cast<int>(info.param)];
}

INSTANTIATE_TEST_SUITE_P(Changes, PXSystemEventsTimeZone,
                         ::testing::Values(Change::AtomicSymlinkSwap, Change::RemoveThenSymlink,
                                           Change::RewriteRegularFile),
                         changeName);

TEST(PXSystemEvents, TouchingTheFileWithoutChangingTheZonePostsNothing) {
  if (!g_file_test(zoneFile("Etc/UTC").c_str(), G_FILE_TEST_EXISTS)) GTEST_SKIP() << "tzdata lacks Etc/UTC";
  PXTempHome home;
  const std::string localtime = home.makeDirectory("etc") + "/localtime";
  ASSERT_EQ(symlink(zoneFile("Etc/UTC").c_str(), localtime.c_str()), 0);
  setenv("PXKIT_LOCALTIME_PATH", localtime.c_str(), 1);
  int posted = 0;
  PXNotificationCenter::defaultCenter()->addObserverForName(
      kPXSystemTimeZoneDidChangeNotification, nullptr, nullptr, [&](const PXNotification&) { ++posted; });
  ASSERT_TRUE(PXSystemEvents::isWatchingTimeZone());

  // The same zone swapped in again: events, and a look at the file, but no change.
  changeZone(localtime, "Etc/UTC", Change::AtomicSymlinkSwap);
  ASSERT_TRUE(PXIterateMainContextUntil([] { return PXSystemEvents::isTimeZoneCheckPending(); }));
  ASSERT_TRUE(PXIterateMainContextUntil([] { return !PXSystemEvents::isTimeZoneCheckPending(); }));
  EXPECT_EQ(posted, 0);
}

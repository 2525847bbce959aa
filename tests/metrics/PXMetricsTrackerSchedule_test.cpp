// The daily papercut timer, end to end on the real main loop and the virtual clock.
#include <gtest/gtest.h>
#include <pxkit/metrics/PXMetricsTracker.h>
#include <pxkit/objects/PXClock.h>
#include <pxkit/platform/PXBundle.h>
#include <pxkit/platform/PXCalendar.h>
#include <pxkit/platform/PXTimer.h>
#include <pxkit/platform/PXWorkspace.h>

#include <cstdlib>

#include "platform/internal/SystemEvents.h"
#include "support/PXDBusMock.h"
#include "support/PXRunLoopUntil.h"
#include "support/PXTempHome.h"

namespace {

constexpr double kBerlinSpringEve = 733521600;       // 2024-03-30 21:00 CET
constexpr double kBerlinSpringMidnight = 733532401;  // 2024-03-31 00:00:01 CET
constexpr double kBerlinAfterSpring = 733615201;     // 2024-04-01 00:00:01 CEST (after a 23-hour day)

void useZone(const char* zone) {
  setenv("TZ", zone, 1);
  PXCalendar::resetTimeZone();
}

class PXMetricsTrackerScheduleTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(PXBundle::setMainBundleIdentity("org.pxkit.ScheduleTest", "1.0", "1"));
  }
  // Runs the main loop until the tracker has an armed daily timer.
  static PXRef<PXTimer> armedTimer(PXMetricsTracker& tracker) {
    EXPECT_TRUE(PXRunLoopUntil([&] { return tracker.automaticPapercutTimer() != nullptr; }));
    return tracker.automaticPapercutTimer();
  }

  PXTempHome home;
};

}  // namespace

TEST_F(PXMetricsTrackerScheduleTest,
       NextFireDateIsTheFollowingLocalDayAt00_00_01AndRearmingReplacesTheTimer) {
  struct Row {
    const char* zone;
    double now, expected;  // seconds since 2001
  };
  for (Row row : {Row{"Europe/Berlin", kBerlinSpringEve, kBerlinSpringMidnight},
                  Row{"Europe/Berlin", kBerlinSpringMidnight, kBerlinAfterSpring},
                  Row{"Europe/Berlin", 733579200, kBerlinAfterSpring},  // 2024-03-31 14:00 CEST
                  Row{"Europe/Berlin", 751672801, 751762801},           // 10-27 00:00:01 CEST, a 25-hour day
                  Row{"America/New_York", 752299201, 752389201},        // 11-03 00:00:01 EDT
                  Row{"America/New_York", 731700000, 731739601},        // 03-09 13:00 EST
                  Row{"America/New_York", 731739601, 731822401}}) {     // 03-10 00:00:01 EST
    useZone(row.zone);
    PXScopedVirtualClock clock{PXDate(row.now)};
    auto tracker = PXMake<PXMetricsTracker>();
    tracker->considerAutomaticPapercutWithSchedule(/*schedule=*/true);
    PXRef<PXTimer> timer = armedTimer(*tracker);
    ASSERT_TRUE(timer);
    EXPECT_EQ(timer->fireDate(), PXDate(row.expected)) << row.zone << " at " << row.now;
    EXPECT_FALSE(timer->repeats());
    // Arming again replaces the timer: exactly one is armed at a time.
    tracker->considerAutomaticPapercutWithSchedule(true);
    ASSERT_TRUE(PXRunLoopUntil([&] { return tracker->automaticPapercutTimer() != timer; }));
    EXPECT_FALSE(timer->isValid());
    EXPECT_EQ(tracker->automaticPapercutTimer()->fireDate(), PXDate(row.expected));
    tracker->automaticPapercutTimer()->invalidate();
  }
}

TEST_F(PXMetricsTrackerScheduleTest, TimerCutsTheDaysPapercutAtMidnightStampedWithTheOldTimeBase) {
  useZone("Europe/Berlin");
  PXScopedVirtualClock clock{PXDate(kBerlinSpringEve)};
  auto tracker = PXMake<PXMetricsTracker>();
  tracker->loadFromPreferences();  // day 1: nothing saved yet; arms the daily timer
  PXDate dayOne = tracker->metricsTimeBase();
  tracker->updateMetricValue(3, "clicks");
  tracker->startOrContinueUsageWithAutostopAfterInterval(600, "editing");
  tracker->settleOutstandingOperationsWithOperationSync();  // recorded at 21:00, before time moves
  armedTimer(*tracker);

  // Let virtual time run to the firing: 00:00:01 of day 2.
  ASSERT_TRUE(
      PXRunLoopUntil([&] { return tracker->paperCuts()->count() == 1; }, {.maxVirtualSeconds = 86400}));
  tracker->settleOutstandingOperationsWithOperationSync();
  EXPECT_EQ(clock.now(), PXDate(kBerlinSpringMidnight));
  PXRef<PXDictionary> cut = tracker->paperCuts()->objectAtIndex(0).dictionaryValue();
  EXPECT_EQ(cut->objectForKey("timestamp").doubleValue(), dayOne.timeIntervalSince1970());
  PXRef<PXArray> sets = cut->objectForKey("metrics").arrayValue();
  ASSERT_EQ(sets->count(), 2u);
  EXPECT_EQ(sets->objectAtIndex(1).dictionaryValue()->objectForKey("value").intValue(), 600)
      << "usage clipped at its autostop";
  EXPECT_EQ(tracker->metricsTimeBase(), PXDate(kBerlinSpringMidnight));

  // The firing armed the next day's timer and saved the state.
  ASSERT_TRUE(PXRunLoopUntil([&] {
    PXRef<PXTimer> next = tracker->automaticPapercutTimer();
    return next && next->fireDate() == PXDate(kBerlinAfterSpring);
  }));
  tracker->automaticPapercutTimer()->invalidate();
}

TEST_F(PXMetricsTrackerScheduleTest, WakeAfterSleepingAcrossMidnightFiresAtOnce) {
  PX_SKIP_WITHOUT_DBUS_MOCK();
  PXDBusMock bus;
  ASSERT_TRUE(bus.isUp());
  ASSERT_TRUE(bus.startTemplate("logind", "org.freedesktop.login1"));
  useZone("UTC");
  PXScopedVirtualClock clock{PXDate(kBerlinSpringEve)};
  auto tracker = PXMake<PXMetricsTracker>();
  tracker->updateMetricValue(1, "before.sleep");
  tracker->settleOutstandingOperationsWithOperationSync();
  tracker->considerAutomaticPapercutWithSchedule(true);
  PXRef<PXTimer> timer = armedTimer(*tracker);

  bool woke = false;
  PXWorkspace::sharedWorkspace()->notificationCenter()->addObserverForName(
      kPXWorkspaceDidWakeNotification, nullptr, nullptr, [&](const PXNotification&) { woke = true; });
  ASSERT_TRUE(PXRunLoopUntil(
      [] { return PXSystemEvents::sleepWatchState() == PXSystemEvents::SleepWatchState::Listening; }));
  // Asleep for ten hours across midnight, then logind says the machine is back.
  clock.advance(10 * 3600);
  bus.emitSignal("org.freedesktop.login1", "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                 "PrepareForSleep", "b", {g_variant_new_boolean(FALSE)});
  ASSERT_TRUE(PXRunLoopUntil([&] { return woke; }));
  ASSERT_TRUE(PXRunLoopUntil([&] { return tracker->paperCuts()->count() == 1; }));
  EXPECT_EQ(clock.now(), PXDate(kBerlinSpringEve + 10 * 3600)) << "fired on waking, without moving time on";
  ASSERT_TRUE(PXRunLoopUntil([&] { return tracker->automaticPapercutTimer() != timer; }));
  tracker->automaticPapercutTimer()->invalidate();
}

// Callback timers and absolute-time timers on a real main loop and the virtual clock.
#include <gtest/gtest.h>
#include <pxkit/foundation/PXAbsoluteTimeFire.h>
#include <pxkit/objects/PXClock.h>
#include <pxkit/platform/PXNotificationCenter.h>
#include <pxkit/platform/PXWorkspace.h>

#include <vector>

#include "support/PXRunLoopUntil.h"

namespace {

constexpr double kStart = 700000000;

TEST(PXBlocks, OnceAndZeroRepeatTimersFireOnceAndFiveRepeatsEveryFiveSecondsAnEmptyOneSilently) {
  PXScopedVirtualClock clock{PXDate(kStart)};
  std::vector<double> zero, once, repeating;
  auto at = [&](std::vector<double>& into) {
    return [&clock, &into](PXTimer*) { into.push_back(clock.now() - PXDate(kStart)); };
  };
  PXRef<PXTimer> single = PXBlocks::scheduledTimerFiringInTimeInterval(2.0, 0.0, at(zero));
  PXRef<PXTimer> onceTimer = PXBlocks::scheduledTimerFiringOnceInTimeInterval(3.0, at(once));
  PXRef<PXTimer> periodic = PXBlocks::scheduledTimerFiringInTimeInterval(1.0, 5.0, at(repeating));
  EXPECT_FALSE(single->repeats() || onceTimer->repeats());
  ASSERT_TRUE(PXRunLoopUntil([&] { return repeating.size() == 4; }, {.maxVirtualSeconds = 100}));
  EXPECT_EQ(repeating, (std::vector<double>{1, 6, 11, 16}));
  EXPECT_EQ(zero, std::vector<double>{2});
  EXPECT_EQ(once, std::vector<double>{3});
  EXPECT_FALSE(single->isValid() || onceTimer->isValid()) << "a one-shot timer is done after firing";
  periodic->invalidate();
}

TEST(PXAbsoluteTimeFire, WakeAndTimeZoneChangeReapplyTheDateUntilTheTimerIsDestroyed) {
  PXScopedVirtualClock clock{PXDate(kStart)};
  PXNotificationCenter* workspace = PXWorkspace::sharedWorkspace()->notificationCenter();
  PXNotificationCenter* defaults = PXNotificationCenter::defaultCenter();
  const size_t workspaceBefore = workspace->observerCount(), defaultBefore = defaults->observerCount();
  PXDate target(kStart + 600);
  {
    PXRef<PXTimer> plain = PXAbsoluteTimeFire::timerWithAbsoluteFireDate(target, nullptr);
    EXPECT_FALSE(plain->userInfo()) << "no callback, nothing boxed";
    EXPECT_EQ(workspace->observerCount(), workspaceBefore + 1);
    plain->invalidate();
    workspace->postNotificationName(kPXWorkspaceDidWakeNotification);  // no effect on an invalid timer
    EXPECT_EQ(workspace->observerCount(), workspaceBefore + 1) << "invalidating does not end the observation";
  }
  EXPECT_EQ(workspace->observerCount() + defaults->observerCount(), workspaceBefore + defaultBefore);
  int fired = 0;
  PXRef<PXTimer> timer =
      PXAbsoluteTimeFire::scheduledTimerWithAbsoluteFireDate(target, [&](PXTimer*) { ++fired; });
  // Something moved the date; a wake or a zone change sets it back to the absolute moment.
  timer->setFireDate(PXDate(kStart + 5000));
  workspace->postNotificationName(kPXWorkspaceDidWakeNotification);
  EXPECT_EQ(timer->fireDate(), target);
  timer->setFireDate(PXDate(kStart + 7000));
  defaults->postNotificationName(kPXSystemTimeZoneDidChangeNotification);
  EXPECT_EQ(timer->fireDate(), target);
  // Asleep for an hour across the date: on wake it fires at once.
  timer->setFireDate(PXDate(kStart + 99999));
  clock.advance(3600);
  workspace->postNotificationName(kPXWorkspaceDidWakeNotification);
  ASSERT_TRUE(PXRunLoopUntil([&] { return fired == 1; }));
  EXPECT_EQ(clock.now(), PXDate(kStart + 3600));
}

}  // namespace

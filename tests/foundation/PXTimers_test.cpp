// Callback timers and absolute-time timers on a real main loop and the virtual clock.
#include <gtest/gtest.h>
#include <pxkit/foundation/PXAbsoluteTimeFire.h>
#include <pxkit/foundation/PXAssociatedTargetBlockTrampoline.h>
#include <pxkit/foundation/PXRuntime.h>
#include <pxkit/objects/PXClock.h>
#include <pxkit/platform/PXNotificationCenter.h>
#include <pxkit/platform/PXWorkspace.h>

#include <vector>

#include "support/PXRunLoopUntil.h"

namespace {

constexpr double kStart = 700000000;

TEST(PXBlocks, OnceAndZeroRepeatTimersFireOnceAndFiveRepeatsEveryFiveSeconds) {
  PXScopedVirtualClock clock{PXDate(kStart)};
  std::vector<double> zero, once, repeating;
  auto at = [&](std::vector<double>& into) {
    return [&clock, &into](PXTimer*) { into.push_back(clock.now() - PXDate(kStart)); };
  };
  PXRef<PXTimer> single = PXBlocks::scheduledTimerFiringInTimeInterval(2.0, 0.0, at(zero));
  PXRef<PXTimer> onceTimer = PXBlocks::scheduledTimerFiringOnceInTimeInterval(3.0, at(once));
  PXRef<PXTimer> periodic = PXBlocks::scheduledTimerFiringInTimeInterval(1.0, 5.0, at(repeating));
  EXPECT_FALSE(single->repeats() || onceTimer->repeats());
  EXPECT_TRUE(periodic->repeats());
  ASSERT_TRUE(PXRunLoopUntil([&] { return repeating.size() == 4; }, {.maxVirtualSeconds = 100}));
  EXPECT_EQ(repeating, (std::vector<double>{1, 6, 11, 16}));
  EXPECT_EQ(zero, std::vector<double>{2});
  EXPECT_EQ(once, std::vector<double>{3});
  EXPECT_FALSE(single->isValid() || onceTimer->isValid()) << "a one-shot timer is done after firing";
  periodic->invalidate();
}

TEST(PXBlocks, CallbackLivesInTheUserInfoAndAnEmptyOneFiresSilently) {
  PXScopedVirtualClock clock{PXDate(kStart)};
  PXTimer* seen = nullptr;
  PXRef<PXTimer> timer = PXBlocks::timerWithFireDate(
      PXDate(kStart + 1), 0, [&](PXTimer* t) { seen = t; }, false);
  EXPECT_TRUE(dynamic_cast<PXTimerBlockBox*>(timer->userInfo().objectPointer()));
  EXPECT_EQ(timer->runLoop(), nullptr) << "made, not scheduled";
  timer->fire();
  EXPECT_EQ(seen, timer.get());
  // No callback, an empty boxed one, no timer at all: nothing to call.
  PXRef<PXTimer> silent = PXBlocks::timerWithFireDate(PXDate(kStart + 1), 0, nullptr, false);
  EXPECT_FALSE(silent->userInfo());
  silent->fire();
  EXPECT_FALSE(silent->isValid());
  PXTimer::timerWithFireDate(PXDate(kStart), 0, nullptr, &PXBlocks::_categoryPXExecuteBlock,
                             PXValue(PXMake<PXTimerBlockBox>(PXTimerBlock())), false)
      ->fire();
  PXBlocks::_categoryPXExecuteBlock(nullptr);
}

TEST(PXAbsoluteTimeFire, WakeAndTimeZoneChangeReapplyTheSameAbsoluteDate) {
  PXScopedVirtualClock clock{PXDate(kStart)};
  PXNotificationCenter* workspace = PXWorkspace::sharedWorkspace()->notificationCenter();
  PXDate target(kStart + 600);
  int fired = 0;
  PXRef<PXTimer> timer =
      PXAbsoluteTimeFire::scheduledTimerWithAbsoluteFireDate(target, [&](PXTimer*) { ++fired; });
  ASSERT_TRUE(timer);
  PXValue attached = PXRuntime::getAssociatedObjectForKey(*timer, kPXAbsoluteTimeFireAbsoluteTimeKey);
  EXPECT_TRUE(dynamic_cast<PXAssociatedTargetBlockTrampoline*>(attached.objectPointer()));

  // Something moved the date; a wake sets it back to the absolute moment.
  timer->setFireDate(PXDate(kStart + 5000));
  workspace->postNotificationName(kPXWorkspaceDidWakeNotification);
  EXPECT_EQ(timer->fireDate(), target);
  timer->setFireDate(PXDate(kStart + 7000));
  PXNotificationCenter::defaultCenter()->postNotificationName(kPXSystemTimeZoneDidChangeNotification);
  EXPECT_EQ(timer->fireDate(), target) << "the moment does not shift with the zone";

  // Asleep for an hour across the date: on wake it fires at once.
  timer->setFireDate(PXDate(kStart + 99999));
  clock.advance(3600);
  workspace->postNotificationName(kPXWorkspaceDidWakeNotification);
  ASSERT_TRUE(PXRunLoopUntil([&] { return fired == 1; }));
  EXPECT_EQ(clock.now(), PXDate(kStart + 3600));
}

TEST(PXAbsoluteTimeFire, ObservationEndsWhenTheTimerIsDestroyedNotWhenInvalidated) {
  PXScopedVirtualClock clock{PXDate(kStart)};
  PXNotificationCenter* workspace = PXWorkspace::sharedWorkspace()->notificationCenter();
  PXNotificationCenter* defaults = PXNotificationCenter::defaultCenter();
  const size_t workspaceBefore = workspace->observerCount(), defaultBefore = defaults->observerCount();
  {
    PXRef<PXTimer> timer = PXAbsoluteTimeFire::timerWithAbsoluteFireDate(PXDate(kStart + 60), nullptr);
    EXPECT_FALSE(timer->userInfo()) << "no callback, nothing boxed";
    EXPECT_EQ(workspace->observerCount(), workspaceBefore + 1);
    EXPECT_EQ(defaults->observerCount(), defaultBefore + 1);
    timer->invalidate();
    EXPECT_EQ(workspace->observerCount(), workspaceBefore + 1)
        << "invalidating does not stop the observation";
    workspace->postNotificationName(kPXWorkspaceDidWakeNotification);  // no effect on an invalid timer
    EXPECT_FALSE(timer->isValid());
  }
  EXPECT_EQ(workspace->observerCount(), workspaceBefore);
  EXPECT_EQ(defaults->observerCount(), defaultBefore);
}

}  // namespace

#include <fcntl.h>
#include <glib.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pxkit/objects/PXClock.h>
#include <pxkit/platform/PXLog.h>
#include <pxkit/platform/PXRunLoop.h>
#include <pxkit/platform/PXTimer.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "support/PXLogCapture.h"
#include "support/PXRunLoopUntil.h"

namespace {

constexpr double kStart = 800000000.0;  // an arbitrary virtual "now"

// Firings as "name@seconds since kStart".
class PXTimerTest : public ::testing::Test {
 protected:
  PXScopedVirtualClock clock{PXDate(kStart)};
  std::vector<std::string> firings;
  std::vector<PXRef<PXTimer>> made;

  // Timers outlive a test on the main loop unless invalidated; their actions point into this fixture.
  void TearDown() override {
    for (const PXRef<PXTimer>& t : made) t->invalidate();
  }
  PXRef<PXTimer> schedule(std::string name, double after, double interval = 0) {
    auto record = [this, name](PXTimer*) {
      firings.push_back(name + "@" + std::to_string(static_cast<int>(PXDate::now() - PXDate(kStart))));
    };
    PXRef<PXTimer> t = PXTimer::timerWithFireDate(PXDate(kStart + after), interval, nullptr, record,
                                                  PXValue(), interval > 0);
    PXRunLoop::current()->addTimer(t.get());
    return track(t);
  }
  PXRef<PXTimer> track(PXRef<PXTimer> t) {
    made.push_back(t);
    return t;
  }
  void runFor(double seconds) { PXRunLoop::current()->runUntilDate(PXDate::now() + seconds); }
  using Firings = std::vector<std::string>;
};

// The machine sleeps for a day: the clock jumps while the loop does not run.
TEST_F(PXTimerTest, AfterASleepEachTimerFiresOnceWithoutABurst) {
  PXRef<PXTimer> repeating = schedule("repeating", 60, 60);
  PXRef<PXTimer> once = schedule("once", 90);
  clock.advance(86400 + 30);
  ASSERT_TRUE(PXRunLoopUntil([&] { return firings.size() >= 2; }));
  PXRunLoop::current()->runUntilDate(PXDate::now());  // anything else pending would show now
  EXPECT_EQ(firings, (Firings{"repeating@86430", "once@86430"}));
  // The next beat is the first one on the original rhythm after now.
  EXPECT_EQ(repeating->fireDate(), PXDate(kStart + 86460));
  runFor(30);
  EXPECT_EQ(firings, (Firings{"repeating@86430", "once@86430", "repeating@86460"}));
}

TEST_F(PXTimerTest, InvalidateStopsATimerFromAnywhere) {
  PXRef<PXTimer> r = schedule("r", 1, 1);
  int count = 0;
  PXRef<PXTimer> self = track(PXTimer::scheduledTimerWithTimeInterval(1, true, [&](PXTimer* timer) {
    if (++count == 3) timer->invalidate();  // from its own action
  }));
  PXRef<PXTimer> never = schedule("never", 2);
  std::thread([&] { never->invalidate(); }).join();  // from another thread
  runFor(2.5);
  r->invalidate();
  r->invalidate();  // idempotent
  runFor(100);
  EXPECT_EQ(firings, (Firings{"r@1", "r@2"}));
  EXPECT_EQ(count, 3);
  EXPECT_FALSE(self->isValid());
  // An invalid timer cannot be brought back.
  r->setFireDate(PXDate::now());
  PXRunLoop::current()->addTimer(r.get());
  runFor(10);
  EXPECT_EQ(firings.size(), 2u);
  EXPECT_FALSE(PXRunLoop::current()->nextTimerDate());
}

class Target : public PXObject {
 public:
  std::vector<double> ticks;
  void tick(PXTimer* timer) { ticks.push_back(timer->userInfo().doubleValue()); }
};

TEST_F(PXTimerTest, TheTargetIsKeptUntilInvalidationAndUserInfoUntilDestruction) {
  PXRef<Target> target = PXMake<Target>();
  PXWeakRef<Target> weakTarget = target;
  PXRef<PXTimer> t = track(PXTimer::scheduledTimerWithTimeInterval(
      1, target.get(), PXTimerAction(&Target::tick), PXValue(2.5), /*repeats=*/true));
  runFor(2);
  EXPECT_EQ(target->ticks, (std::vector<double>{2.5, 2.5}));
  target = nullptr;
  EXPECT_TRUE(weakTarget.lock());  // the timer keeps it
  t->invalidate();
  EXPECT_FALSE(weakTarget.lock());
  EXPECT_EQ(t->target(), nullptr);
  EXPECT_EQ(t->userInfo().doubleValue(), 2.5);
}

TEST_F(PXTimerTest, FireRunsTheActionNowAndEndsOnlyAOneShotTimer) {
  PXRef<PXTimer> once = schedule("once", 100);
  PXRef<PXTimer> repeating = schedule("repeating", 100, 100);
  once->fire();
  repeating->fire();
  EXPECT_FALSE(once->isValid());
  EXPECT_EQ(repeating->fireDate(), PXDate(kStart + 100));  // schedule unchanged
  PXRunLoop::current()->addTimer(repeating.get());         // already scheduled: ignored
  repeating->addToRunLoop(nullptr);
  once->fire();  // invalid: nothing
  runFor(100);
  EXPECT_EQ(firings, (Firings{"once@0", "repeating@0", "repeating@100"}));
  // A one-shot timer is invalid once fired (not yet while its action runs) and its loop lets it go.
  bool validInsideAction = false;
  PXWeakRef<PXTimer> weak = PXTimer::scheduledTimerWithTimeInterval(
      10, false, [&](PXTimer* timer) { validInsideAction = timer->isValid(); });
  PXRef<PXTimer> silent = track(PXTimer::scheduledTimerWithTimeInterval(1, false, PXTimer::Action()));
  runFor(10);
  EXPECT_TRUE(validInsideAction);
  EXPECT_FALSE(weak.lock());
  EXPECT_FALSE(silent->isValid());                                                  // fired without an action
  EXPECT_EQ(silent->timeInterval(), 0.0);                                           // one-shot: 0
  EXPECT_EQ(PXTimer::timerWithTimeInterval(-1, true, {})->timeInterval(), 0.0001);  // normalised
}

TEST(PXTimerRealClock, ARealTimerFiresFromTheWallClockTimerNotBeforeItsDate) {
  ASSERT_FALSE(PXClock::isVirtual());
  PXDate firedAt;
  PXRef<PXTimer> t =
      PXTimer::scheduledTimerWithTimeInterval(0.01, false, [&](PXTimer*) { firedAt = PXDate::now(); });
  const PXDate due = t->fireDate();
  ASSERT_TRUE(PXRunLoopUntil([&] { return !t->isValid(); }));
  EXPECT_GE(firedAt.timeIntervalSinceReferenceDate(), due.timeIntervalSinceReferenceDate() - 1e-6);
  // A date already past fires at the next iteration.
  bool pastFired = false;
  PXRef<PXTimer> past = PXTimer::timerWithFireDate(
      PXDate::now() + -3600, 0, nullptr, [&](PXTimer*) { pastFired = true; }, PXValue(), false);
  PXRunLoop::current()->addTimer(past.get());
  ASSERT_TRUE(PXRunLoopUntil([&] { return pastFired; }, {.maxIterations = 3}));
}

TEST(PXTimerRealClock, WithoutATimerFdTheFailureIsLoggedAndTimersStillFire) {
  // The sanitizers need a fd the first time they meet a type: the same steps once with fds to spare.
  PXLogCapture log;
  {
    GMainContext* warmUp = g_main_context_new();
    g_main_context_push_thread_default(warmUp);
    ASSERT_NE(PXRunLoop::current(), PXRunLoop::main());
    PXLog("warm-up");
    g_main_context_pop_thread_default(warmUp);
    g_main_context_unref(warmUp);
  }
  // The context (and its wake-up fd) first; then no fd is left for the timer source.
  GMainContext* context = g_main_context_new();
  g_main_context_push_thread_default(context);
  const int lowestFree = open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(lowestFree, 0);
  close(lowestFree);
  rlimit saved{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  rlimit noMoreFds = saved;
  noMoreFds.rlim_cur = static_cast<rlim_t>(lowestFree);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &noMoreFds), 0);
  PXRunLoop* loop = PXRunLoop::current();  // wraps the pushed context: its timerfd_create fails
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
  EXPECT_THAT(log.lines(),
              ::testing::Contains(::testing::MatchesRegex(
                  "PXTimer: could not create a timer fd \\(.+\\); waking by poll timeout instead")));
  bool fired = false;
  PXRef<PXTimer> timer = PXTimer::timerWithTimeInterval(0.02, false, [&](PXTimer*) { fired = true; });
  loop->addTimer(timer.get());
  // Without the poll timeout the loop would sleep until the hang guard.
  EXPECT_TRUE(PXRunLoopUntil([&] { return fired; }, {.hangGuardSeconds = 20}));
  g_main_context_pop_thread_default(context);
  g_main_context_unref(context);
}

}  // namespace

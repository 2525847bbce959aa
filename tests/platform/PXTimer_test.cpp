#include <fcntl.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <pxkit/objects/PXClock.h>
#include <pxkit/platform/PXLog.h>
#include <pxkit/platform/PXRunLoop.h>
#include <pxkit/platform/PXTimer.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/PXLogCapture.h"
#include "support/PXRunLoopUntil.h"

namespace {

constexpr double kStart = 800000000.0;  // 2026-05-09, an arbitrary virtual "now"

struct Firing {
  std::string name;
  double at;  // virtual seconds since kStart
  friend bool operator==(const Firing&, const Firing&) = default;
};
std::ostream& operator<<(std::ostream& os, const Firing& f) {
  return os << f.name << "@" << f.at;
}

class PXTimerTest : public ::testing::Test {
 protected:
  PXScopedVirtualClock clock{PXDate(kStart)};
  std::vector<Firing> firings;
  std::vector<PXRef<PXTimer>> made;

  // Timers outlive a test on the main loop unless invalidated; their actions
  // point into this fixture.
  void TearDown() override {
    for (const PXRef<PXTimer>& t : made) t->invalidate();
  }

  PXTimer::Action recorder(std::string name) {
    return [this, name = std::move(name)](PXTimer*) {
      firings.push_back({name, PXDate::now() - PXDate(kStart)});
    };
  }
  PXRef<PXTimer> schedule(std::string name, double after, bool repeats = false, double interval = 0) {
    PXRef<PXTimer> t = PXTimer::timerWithFireDate(PXDate(kStart + after), repeats ? interval : 0, nullptr,
                                                  recorder(std::move(name)), PXValue(), repeats);
    PXRunLoop::current()->addTimer(t.get());
    made.push_back(t);
    return t;
  }
  PXRef<PXTimer> track(PXRef<PXTimer> t) {
    made.push_back(t);
    return t;
  }
  // Runs the loop with the virtual clock allowed to move up to `seconds` from now,
  // until nothing more happens in that span.
  void runFor(double seconds) { PXRunLoop::current()->runUntilDate(PXDate::now() + seconds); }
};

TEST_F(PXTimerTest, TimersFireInOrderEachAtItsWallClockDateAndNotBefore) {
  PXRef<PXTimer> c = schedule("c", 30);
  PXRef<PXTimer> a = schedule("a", 10);
  PXRef<PXTimer> b1 = schedule("b1", 20);
  PXRef<PXTimer> b2 = schedule("b2", 20);        // same date: in the order they were added
  PXRef<PXTimer> early = schedule("early", -5);  // already due
  runFor(29.75);
  EXPECT_EQ(firings, (std::vector<Firing>{{"early", 0}, {"a", 10}, {"b1", 20}, {"b2", 20}}));
  EXPECT_TRUE(c->isValid());
  runFor(70.25);
  EXPECT_EQ(firings.back(), (Firing{"c", 30}));
  EXPECT_EQ(firings.size(), 5u);
}

TEST_F(PXTimerTest, AfterASleepEachTimerFiresOnceWithoutABurst) {
  PXRef<PXTimer> repeating = schedule("repeating", 60, /*repeats=*/true, 60);
  PXRef<PXTimer> once = schedule("once", 90);
  // The machine sleeps for a day: the clock jumps while the loop does not run.
  clock.advance(86400 + 30);
  ASSERT_TRUE(PXRunLoopUntil([&] { return firings.size() >= 2; }));
  PXRunLoop::current()->runUntilDate(PXDate::now());  // anything else pending would show now
  EXPECT_EQ(firings, (std::vector<Firing>{{"repeating", 86430}, {"once", 86430}}));
  EXPECT_FALSE(once->isValid());
  // The next beat is the first one on the original rhythm after now.
  EXPECT_EQ(repeating->fireDate(), PXDate(kStart + 86460));
  runFor(30);
  EXPECT_EQ(firings.back(), (Firing{"repeating", 86460}));
  EXPECT_EQ(firings.size(), 3u);
}

TEST_F(PXTimerTest, SettingTheFireDateAgainAfterAJumpReappliesTheSameMoment) {
  // How a wall-clock deadline is re-anchored on wake or zone change: set the
  // same absolute date again and let the loop measure afresh.
  const PXDate absolute(kStart + 600);  // ten minutes ahead
  PXRef<PXTimer> t = schedule("absolute", 600);
  clock.advance(3600);  // an hour asleep across it
  t->setFireDate(absolute);
  ASSERT_TRUE(PXRunLoopUntil([&] { return !firings.empty(); }));
  EXPECT_EQ(firings, (std::vector<Firing>{{"absolute", 3600}}));  // at once on wake

  // A date still ahead keeps its time; moving it later postpones, earlier advances.
  PXRef<PXTimer> later = schedule("later", 3610);
  later->setFireDate(PXDate(kStart + 3650));
  runFor(20);
  EXPECT_EQ(firings.size(), 1u);
  runFor(40);
  EXPECT_EQ(firings.back(), (Firing{"later", 3650}));
  PXRef<PXTimer> earlier = schedule("earlier", 4000);
  earlier->setFireDate(PXDate(kStart + 3700));
  runFor(100);
  EXPECT_EQ(firings.back(), (Firing{"earlier", 3700}));
}

TEST_F(PXTimerTest, AClockSetBackDelaysTheTimerUntilItsDateComesAgain) {
  PXRef<PXTimer> t = schedule("t", 100);
  clock.advance(-3600);
  runFor(3650);
  EXPECT_TRUE(firings.empty());
  runFor(60);
  EXPECT_EQ(firings, (std::vector<Firing>{{"t", 100}}));
}

TEST_F(PXTimerTest, InvalidateStopsATimerFromAnywhere) {
  PXRef<PXTimer> r = schedule("r", 1, /*repeats=*/true, 1);
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
  EXPECT_EQ(firings, (std::vector<Firing>{{"r", 1}, {"r", 2}}));
  EXPECT_EQ(count, 3);
  EXPECT_FALSE(self->isValid());
  EXPECT_FALSE(never->isValid());
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
  EXPECT_EQ(t->target(), target.get());
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
  PXRef<PXTimer> repeating = schedule("repeating", 100, /*repeats=*/true, 100);
  once->fire();
  repeating->fire();
  EXPECT_EQ(firings, (std::vector<Firing>{{"once", 0}, {"repeating", 0}}));
  EXPECT_FALSE(once->isValid());
  EXPECT_TRUE(repeating->isValid());
  EXPECT_EQ(repeating->fireDate(), PXDate(kStart + 100));  // schedule unchanged
  once->fire();                                            // invalid: nothing
  runFor(100);
  EXPECT_EQ(firings, (std::vector<Firing>{{"once", 0}, {"repeating", 0}, {"repeating", 100}}));
}

TEST_F(PXTimerTest, AFiredOneShotTimerIsInvalidAndReleasedByItsLoop) {
  bool validInsideAction = false;
  PXWeakRef<PXTimer> weak = PXTimer::scheduledTimerWithTimeInterval(
      10, false, [&](PXTimer* timer) { validInsideAction = timer->isValid(); });
  ASSERT_TRUE(weak.lock());  // the run loop holds it
  PXRef<PXTimer> silent = track(PXTimer::scheduledTimerWithTimeInterval(1, false, PXTimer::Action()));
  runFor(10);
  EXPECT_TRUE(validInsideAction);
  EXPECT_FALSE(weak.lock());
  EXPECT_FALSE(silent->isValid());  // fired without an action
  EXPECT_FALSE(silent->repeats());
  EXPECT_EQ(silent->timeInterval(), 0.0);  // one-shot: 0
  // Repeating intervals are normalised.
  EXPECT_EQ(PXTimer::timerWithTimeInterval(0, true, {})->timeInterval(), 0.0001);
  EXPECT_EQ(PXTimer::timerWithTimeInterval(-1, true, {})->timeInterval(), 0.0001);
}

TEST_F(PXTimerTest, ATimerBelongsToOneRunLoop) {
  PXRef<PXTimer> t = schedule("t", 10);
  EXPECT_EQ(t->runLoop(), PXRunLoop::current());
  PXRef<PXRunLoop> other;
  std::thread([&] {
    other = PXRef<PXRunLoop>(PXRunLoop::current());
    t->addToRunLoop(other.get());  // ignored: already scheduled here
  }).join();
  EXPECT_EQ(t->runLoop(), PXRunLoop::current());
  EXPECT_FALSE(other->nextTimerDate());
  t->addToRunLoop(nullptr);
  runFor(10);
  EXPECT_EQ(firings, (std::vector<Firing>{{"t", 10}}));
}

TEST_F(PXTimerTest, ATimerThatKeepsMovingIntoThePastDoesNotHoldTheLoop) {
  int fired = 0;
  PXRef<PXTimer> t = track(PXTimer::scheduledTimerWithTimeInterval(0, false, [&](PXTimer* timer) {
    ++fired;
    timer->setFireDate(PXDate::now() + -1);  // due again at once (has no effect once spent)
  }));
  PXRef<PXTimer> r = track(PXTimer::scheduledTimerWithTimeInterval(0, true, [&](PXTimer* timer) {
    ++fired;
    timer->setFireDate(PXDate::now() + -1);
  }));
  bool performed = false;
  PXRunLoop::current()->performBlock([&] { performed = true; });
  for (int i = 0; i < 5; ++i) PXRunLoop::current()->runOnce(false);
  EXPECT_TRUE(performed);
  EXPECT_LE(fired, 1 + 5);  // at most one firing of the repeating one per iteration
  r->invalidate();
}

TEST_F(PXTimerTest, TimersOnAnotherThreadFireThereWhenTheClockMoves) {
  std::promise<PXRef<PXRunLoop>> loopReady;
  std::atomic<bool> quit{false};
  std::atomic<int> fired{0};
  std::thread::id firedOn[2];
  std::thread worker([&] {
    PXRunLoop* loop = PXRunLoop::current();
    loopReady.set_value(PXRef<PXRunLoop>(loop));
    while (!quit.load()) loop->run();
  });
  PXRef<PXRunLoop> loop = loopReady.get_future().get();
  auto record = [&](PXTimer*) {
    firedOn[fired.load()] = std::this_thread::get_id();
    fired.fetch_add(1);
    fired.notify_all();
  };
  PXRef<PXTimer> byClock = PXTimer::timerWithTimeInterval(30, false, record);
  PXRef<PXTimer> byDate = PXTimer::timerWithTimeInterval(1e6, false, record);
  loop->addTimer(byClock.get());
  loop->addTimer(byDate.get());
  clock.advance(30);  // wakes the worker's loop: its timer is due
  fired.wait(0);
  byDate->setFireDate(PXDate::now());  // from this thread, onto the worker's loop
  fired.wait(1);
  quit = true;
  loop->stop();
  const std::thread::id workerId = worker.get_id();
  worker.join();
  EXPECT_EQ(firedOn[0], workerId);
  EXPECT_EQ(firedOn[1], workerId);
}

TEST(PXTimerRealClock, ARealTimerFiresFromTheWallClockTimer) {
  ASSERT_FALSE(PXClock::isVirtual());
  PXDate firedAt;
  bool fired = false;
  PXRef<PXTimer> t = PXTimer::scheduledTimerWithTimeInterval(0.01, false, [&](PXTimer*) {
    firedAt = PXDate::now();
    fired = true;
  });
  const PXDate due = t->fireDate();
  ASSERT_TRUE(PXRunLoopUntil([&] { return fired; }));
  EXPECT_GE(firedAt.timeIntervalSinceReferenceDate(), due.timeIntervalSinceReferenceDate() - 1e-6);

  // A date already past fires at the next iteration.
  bool pastFired = false;
  PXRef<PXTimer> past = PXTimer::timerWithFireDate(
      PXDate::now() + -3600, 0, nullptr, [&](PXTimer*) { pastFired = true; }, PXValue(), false);
  PXRunLoop::current()->addTimer(past.get());
  ASSERT_TRUE(PXRunLoopUntil([&] { return pastFired; }, {.maxIterations = 3}));
}

TEST(PXTimerRealClock, WithoutATimerFdTheFailureIsLoggedAndTimersStillFire) {
  // The sanitizers' type checks read /proc the first time they meet a type,
  // which needs a fd: the same steps once with fds to spare, to meet them all.
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
  const std::vector<std::string> lines = log.lines();
  EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
    return line.starts_with("PXTimer: could not create a timer fd (") &&
           line.ends_with("); waking by poll timeout instead");
  })) << ::testing::PrintToString(lines);

  bool fired = false;
  PXRef<PXTimer> timer = PXTimer::timerWithTimeInterval(0.02, false, [&](PXTimer*) { fired = true; });
  loop->addTimer(timer.get());
  // Without the poll timeout the loop would sleep until the hang guard.
  EXPECT_TRUE(PXRunLoopUntil([&] { return fired; }, {.hangGuardSeconds = 20}));
  g_main_context_pop_thread_default(context);
  g_main_context_unref(context);
}

}  // namespace

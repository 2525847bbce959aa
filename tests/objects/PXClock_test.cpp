#include <gtest/gtest.h>
#include <pxkit/objects/PXClock.h>
#include <pxkit/objects/PXDate.h>
#include <time.h>

#include <atomic>
#include <limits>
#include <thread>
#include <vector>

namespace {

double realtimeSinceReferenceDate() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9 - kPXTimeIntervalSince1970;
}

TEST(PXClock, VirtualClockStandsStillUntilMovedThenTheWallClockReturns) {
  // On the real clock, moving the virtual one does nothing and tells nobody.
  uint64_t calls = 0;
  uint64_t token = PXClock::addChangeObserver([&] { ++calls; });
  PXClock::setVirtualNow(PXDate(5));
  PXClock::advanceVirtualClock(5);
  PXClock::useRealClock();
  PXClock::removeChangeObserver(token);
  EXPECT_EQ(calls, 0u);
  ASSERT_FALSE(PXClock::isVirtual());
  // Bracketed by two readings of CLOCK_REALTIME (1 us of slack for rounding to double).
  const double before = realtimeSinceReferenceDate();
  const double now = PXDate::now().timeIntervalSinceReferenceDate();
  EXPECT_GE(now, before - 1e-6);
  EXPECT_LE(now, realtimeSinceReferenceDate() + 1e-6);

  {
    PXScopedVirtualClock clock(PXDate(1000.0));
    EXPECT_TRUE(PXClock::isVirtual());
    EXPECT_EQ(PXDate::now(), PXDate(1000.0));
    struct Step {
      enum { Advance, Set } kind;
      double amount;
      double expected;
    };
    const Step steps[] = {
        {Step::Advance, 59.5, 1059.5},
        {Step::Advance, 0.0, 1059.5},
        {Step::Set, 86400.0 * 365, 86400.0 * 365},         // a long sleep
        {Step::Advance, -3600.0, 86400.0 * 365 - 3600.0},  // the clock set back
        {Step::Set, -5.0, -5.0},                           // before the reference date
    };
    for (const Step& step : steps) {
      if (step.kind == Step::Advance) {
        clock.advance(step.amount);
      } else {
        clock.set(PXDate(step.amount));
      }
      EXPECT_EQ(PXDate::now().timeIntervalSinceReferenceDate(), step.expected);
      EXPECT_EQ(PXDate::dateWithTimeIntervalSinceNow(10).timeIntervalSinceReferenceDate(),
                step.expected + 10);
    }
  }
  EXPECT_FALSE(PXClock::isVirtual());
  EXPECT_GT(PXDate::now().timeIntervalSinceReferenceDate(), 7.0e8);  // after 2023
}

TEST(PXClock, ObserversHearEveryChangeOnTheChangingThreadUntilRemoved) {
  // The first observer removes itself when called; the next ones still run.
  int selfRemoving = 0;
  uint64_t selfToken = PXClock::addChangeObserver([&] {
    ++selfRemoving;
    PXClock::removeChangeObserver(selfToken);
  });
  std::vector<std::thread::id> callers;
  uint64_t token = PXClock::addChangeObserver([&] { callers.push_back(std::this_thread::get_id()); });
  EXPECT_NE(token, 0u);

  PXClock::useVirtualClock(PXDate(0));                         // 1
  PXClock::advanceVirtualClock(1);                             // 2
  PXClock::setVirtualNow(PXDate(50));                          // 3
  std::thread other([] { PXClock::advanceVirtualClock(1); });  // 4, on another thread
  other.join();
  PXClock::useRealClock();  // 5
  EXPECT_EQ(selfRemoving, 1);
  ASSERT_EQ(callers.size(), 5u);
  EXPECT_EQ(callers[0], std::this_thread::get_id());
  EXPECT_NE(callers[3], std::this_thread::get_id());

  PXClock::removeChangeObserver(token);
  PXClock::useVirtualClock(PXDate(0));
  PXClock::useRealClock();
  EXPECT_EQ(callers.size(), 5u);
}

TEST(PXClock, ReadersSeeAForwardMovingVirtualClockNeverGoBack) {
  PXScopedVirtualClock clock(PXDate(0));
  std::atomic<bool> done{false};
  std::atomic<int> regressions{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < 4; ++i) {
    readers.emplace_back([&] {
      double last = -1;
      while (!done.load()) {
        double now = PXDate::now().timeIntervalSinceReferenceDate();
        if (now < last) regressions.fetch_add(1);
        last = now;
      }
    });
  }
  for (int i = 0; i < 20000; ++i) clock.advance(1);
  done = true;
  for (std::thread& t : readers) t.join();
  EXPECT_EQ(regressions.load(), 0);
  EXPECT_EQ(PXDate::now(), PXDate(20000));
}

double rawMonotonic() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

TEST(PXClock, TheMonotonicClockFollowsVirtualTimeForwardOnlyAndNeverGoesBack) {
  // A fresh process (one per test case): the real reading is CLOCK_MONOTONIC itself.
  const double before = rawMonotonic();
  const double real = PXClock::monotonicNow();
  EXPECT_GE(real, before - 1e-6);
  EXPECT_LE(real, rawMonotonic() + 1e-6);

  double start;
  {
    PXScopedVirtualClock clock(PXDate(1000));
    start = PXClock::monotonicNow();
    EXPECT_GE(start, real);
    EXPECT_EQ(PXClock::monotonicNow(), start);  // stands still with virtual time
    struct Step {
      const char* name;
      enum { Advance, Set } kind;
      double amount;
      double expectedElapsed;
    };
    const Step steps[] = {
        {"forward", Step::Advance, 10, 10},
        {"the wall clock set back an hour", Step::Advance, -3600, 10},
        {"a day later", Step::Set, 1000 - 3590 + 86400, 86410},
        {"set back before the start", Step::Set, 0, 86410},
        {"forward from there", Step::Set, 5, 86415},
        {"no move", Step::Advance, 0, 86415},
        {"an endless jump is ignored", Step::Advance, std::numeric_limits<double>::infinity(), 86415},
    };
    for (const Step& step : steps) {
      SCOPED_TRACE(step.name);
      if (step.kind == Step::Advance) {
        clock.advance(step.amount);
      } else {
        clock.set(PXDate(step.amount));
      }
      EXPECT_EQ(PXClock::monotonicNow() - start, step.expectedElapsed);
    }
    clock.set(PXDate(0));  // leaves the virtual clock finite for the observers
  }
  // Back on the real clock, which resumes no earlier than virtual time stood.
  const double resumed = PXClock::monotonicNow();
  EXPECT_GE(resumed, start + 86415);
  EXPECT_GE(PXClock::monotonicNow(), resumed);
  // Switching to a virtual clock and back again does not take it back either.
  {
    PXScopedVirtualClock clock(PXDate(0));
    EXPECT_GE(PXClock::monotonicNow(), resumed);
  }
  EXPECT_GE(PXClock::monotonicNow(), resumed);
}

}  // namespace

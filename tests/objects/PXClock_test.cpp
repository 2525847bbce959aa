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

double rawMonotonic() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

TEST(PXClock, VirtualTimeMovesOnlyWhenToldAndMonotonicTimeOnlyForward) {
  // On the real clock, moving the virtual one does nothing and tells nobody.
  uint64_t calls = 0;
  uint64_t token = PXClock::addChangeObserver([&] { ++calls; });
  PXClock::setVirtualNow(PXDate(5));
  PXClock::advanceVirtualClock(5);
  PXClock::useRealClock();
  PXClock::removeChangeObserver(token);
  EXPECT_EQ(calls, 0u);
  ASSERT_FALSE(PXClock::isVirtual());
  // The real readings are bracketed by CLOCK_REALTIME and (in a fresh process,
  // one per test case) CLOCK_MONOTONIC, with 1 us of slack for rounding.
  const double before = realtimeSinceReferenceDate();
  const double now = PXDate::now().timeIntervalSinceReferenceDate();
  EXPECT_GE(now, before - 1e-6);
  EXPECT_LE(now, realtimeSinceReferenceDate() + 1e-6);
  const double monotonicBefore = rawMonotonic();
  const double real = PXClock::monotonicNow();
  EXPECT_GE(real, monotonicBefore - 1e-6);
  EXPECT_LE(real, rawMonotonic() + 1e-6);

  double start;
  {
    PXScopedVirtualClock clock(PXDate(1000));
    EXPECT_TRUE(PXClock::isVirtual());
    EXPECT_EQ(PXDate::now(), PXDate(1000.0));
    start = PXClock::monotonicNow();
    EXPECT_GE(start, real);
    EXPECT_EQ(PXClock::monotonicNow(), start);  // stands still with virtual time
    struct Step {
      const char* name;
      enum { Advance, Set } kind;
      double amount;
      double now;      // since the reference date
      double elapsed;  // on the monotonic clock
    };
    const double inf = std::numeric_limits<double>::infinity();
    const Step steps[] = {
        {"forward", Step::Advance, 10, 1010, 10},
        {"no move", Step::Advance, 0, 1010, 10},
        {"the wall clock set back an hour", Step::Advance, -3600, -2590, 10},
        {"a day later", Step::Set, 83810, 83810, 86410},
        {"set back before the reference date", Step::Set, -5, -5, 86410},
        {"forward from there", Step::Set, 0, 0, 86415},
        {"an endless jump is ignored", Step::Advance, inf, inf, 86415},
    };
    for (const Step& step : steps) {
      SCOPED_TRACE(step.name);
      if (step.kind == Step::Advance) {
        clock.advance(step.amount);
      } else {
        clock.set(PXDate(step.amount));
      }
      EXPECT_EQ(PXDate::now().timeIntervalSinceReferenceDate(), step.now);
      EXPECT_EQ(PXDate::dateWithTimeIntervalSinceNow(10).timeIntervalSinceReferenceDate(), step.now + 10);
      EXPECT_EQ(PXClock::monotonicNow() - start, step.elapsed);
    }
    clock.set(PXDate(0));  // leaves the virtual clock finite for the observers
  }
  EXPECT_FALSE(PXClock::isVirtual());
  EXPECT_GT(PXDate::now().timeIntervalSinceReferenceDate(), 7.0e8);  // after 2023
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

}  // namespace

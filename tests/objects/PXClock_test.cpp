#include <gtest/gtest.h>
#include <pxkit/objects/PXClock.h>
#include <pxkit/objects/PXDate.h>

#include <limits>

namespace {

TEST(PXClock, VirtualTimeMovesOnlyWhenToldAndMonotonicTimeOnlyForward) {
  // On the real clock, moving the virtual one does nothing and tells nobody.
  uint64_t calls = 0;
  uint64_t token = PXClock::addChangeObserver([&] { ++calls; });
  PXClock::setVirtualNow(PXDate(5));
  PXClock::advanceVirtualClock(5);
  PXClock::useRealClock();
  PXClock::removeChangeObserver(token);
  EXPECT_EQ(calls, 0u);
  EXPECT_GT(PXDate::now().timeIntervalSinceReferenceDate(), 7.0e8);  // after 2023
  const double real = PXClock::monotonicNow();
  double start;
  {
    PXScopedVirtualClock clock(PXDate(1000));
    EXPECT_EQ(PXDate::now(), PXDate(1000.0));
    start = PXClock::monotonicNow();
    EXPECT_GE(start, real);
    const double inf = std::numeric_limits<double>::infinity();
    struct Step {
      const char* name;
      bool set;                     // else advance
      double amount, now, elapsed;  // now: since the reference date; elapsed: on the monotonic clock
    };
    const Step steps[] = {
        {"forward", false, 10, 1010, 10},
        {"the wall clock set back an hour", false, -3600, -2590, 10},
        {"a day later", true, 83810, 83810, 86410},
        {"set back before the reference date", true, -5, -5, 86410},
        {"forward from there", true, 0, 0, 86415},
        {"an endless jump is ignored", false, inf, inf, 86415},
    };
    for (const Step& step : steps) {
      SCOPED_TRACE(step.name);
      step.set ? clock.set(PXDate(step.amount)) : clock.advance(step.amount);
      EXPECT_EQ(PXDate::dateWithTimeIntervalSinceNow(10).timeIntervalSinceReferenceDate(), step.now + 10);
      EXPECT_EQ(PXClock::monotonicNow() - start, step.elapsed);
    }
    clock.set(PXDate(0));  // leaves the virtual clock finite for the observers
  }
  EXPECT_FALSE(PXClock::isVirtual());
  // Back on the real clock, which resumes no earlier than virtual time stood,
  // and switching to a virtual clock and back again does not take it back either.
  const double resumed = PXClock::monotonicNow();
  EXPECT_GE(resumed, start + 86415);
  { PXScopedVirtualClock clock(PXDate(0)); }
  EXPECT_GE(PXClock::monotonicNow(), resumed);
}

}  // namespace

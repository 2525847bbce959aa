// Saving survives being killed at any moment: every restart loads the last
// completed save (or the one being written when the kill came).
#include <gtest/gtest.h>
#include <pxkit/metrics/PXMetricsTracker.h>
#include <pxkit/objects/PXClock.h>
#include <pxkit/platform/PXBundle.h>
#include <pxkit/platform/PXUserDefaults.h>
#include <signal.h>
#include <unistd.h>

#include <random>
#include <string>

#include "metrics/internal/PXMetricsTrackerInternal.h"
#include "support/PXSubprocess.h"
#include "support/PXTempHome.h"

namespace {

// The generation saved in the preferences file as a fresh process would load it.
int64_t loadedGeneration() {
  // This process keeps its defaults in memory; read in what the child wrote.
  EXPECT_TRUE(PXUserDefaults::standardUserDefaults()->synchronize());
  auto tracker = PXMake<PXMetricsTracker>();
  tracker->loadFromPreferences();
  PXRef<PXMetric> counter = pxkit::internal::findMetricForIdentifier(*tracker, "crash.counter", {}, {});
  int64_t generation = tracker->userData()->objectForKey("generation").longLongValue();
  // Both values were written by one save: they must agree.
  EXPECT_EQ(counter ? counter->value() : 0, generation) << "a torn state";
  return generation;
}

}  // namespace

TEST(PXMetricsTrackerCrash, KilledWhileSavingAlwaysLeavesTheLastCompletedSave) {
  PXTempHome home;
  PXClock::useVirtualClock(PXDate(700056000));
  ASSERT_TRUE(PXBundle::setMainBundleIdentity("org.pxkit.CrashTest", "1.0", "1"));
  std::mt19937 random(20261121);
  int64_t lastCompleted = 0;
  // The atomic replace under the preferences has its own kill loop; these few
  // rounds check what the tracker adds: both values of one save arrive together.
  for (int round = 0; round < 20; ++round) {
    PXSubprocess child({PXKIT_CRASH_CHILD}, {.environment = {}, .outputDescriptor = 3});
    ASSERT_GT(child.pid(), 0);
    // Let it complete a random number of saves (at least one), then kill it
    // wherever it is — usually in the middle of the next one.
    int saves = 1 + static_cast<int>(random() % 3);
    for (int i = 0; i < saves; ++i) {
      std::optional<std::string> line = child.readLine();
      ASSERT_TRUE(line) << "the child ended by itself";
      EXPECT_EQ(std::stoll(*line), lastCompleted + 1) << "the child goes on from the state it loaded";
      lastCompleted = std::stoll(*line);
    }
    usleep(static_cast<useconds_t>(random() % 3000));
    child.kill(SIGKILL);
    ASSERT_TRUE(PXSubprocess::killedBy(child.wait(), SIGKILL)) << "the child stopped by itself";
    // Saves reported after our last read completed too.
    while (std::optional<std::string> line = child.readLine()) lastCompleted = std::stoll(*line);

    int64_t loaded = loadedGeneration();
    ASSERT_GE(loaded, lastCompleted) << "round " << round << ": a completed save was lost";
    ASSERT_LE(loaded, lastCompleted + 1) << "round " << round;
    lastCompleted = loaded;  // the next child goes on from here
  }
}

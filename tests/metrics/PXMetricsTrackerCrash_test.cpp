// Saving survives being killed at any moment: every restart loads the last
// completed save (or the one being written when the kill came).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pxkit/metrics/PXMetricsTracker.h>
#include <pxkit/objects/PXClock.h>
#include <pxkit/platform/PXBundle.h>
#include <pxkit/platform/PXUserDefaults.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>

#include "metrics/internal/PXMetricsTrackerInternal.h"
#include "support/PXTempHome.h"

extern char** environ;

namespace {

// Starts the child with a pipe on its descriptor 3; returns its pid.
pid_t spawnChild(int pipeWrite) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeWrite, 3);
  char path[] = PXKIT_CRASH_CHILD;
  char* argv[] = {path, nullptr};
  pid_t pid = -1;
  int rc = posix_spawn(&pid, path, &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  return rc == 0 ? pid : -1;
}

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
  for (int round = 0; round < 200; ++round) {
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
    pid_t child = spawnChild(fds[1]);
    ASSERT_GT(child, 0);
    close(fds[1]);
    // Let it complete a random number of saves (at least one), then kill it
    // wherever it is — usually in the middle of the next one.
    int saves = 1 + static_cast<int>(random() % 3);
    int64_t generation = 0;
    for (int i = 0; i < saves; ++i) {
      ASSERT_EQ(read(fds[0], &generation, sizeof generation), static_cast<ssize_t>(sizeof generation));
      EXPECT_EQ(generation, lastCompleted + 1) << "the child goes on from the state it loaded";
      lastCompleted = generation;
    }
    usleep(static_cast<useconds_t>(random() % 3000));
    kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the child stopped by itself, status " << status;
    // Saves reported after our last read completed too; drain them.
    while (read(fds[0], &generation, sizeof generation) == static_cast<ssize_t>(sizeof generation)) {
      lastCompleted = generation;
    }
    close(fds[0]);

    int64_t loaded = loadedGeneration();
    ASSERT_GE(loaded, lastCompleted) << "round " << round << ": a completed save was lost";
    ASSERT_LE(loaded, lastCompleted + 1) << "round " << round;
    lastCompleted = loaded;  // the next child goes on from here
  }
}

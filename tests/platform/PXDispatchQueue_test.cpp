#include <gtest/gtest.h>
#include <pthread.h>
#include <pxkit/platform/PXDispatchQueue.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

// Waits (on a condition variable, not the clock) until released.
class Gate {
 public:
  void open() {
    std::lock_guard lock(mutex_);
    open_ = true;
    cv_.notify_all();
  }
  void wait() {
    std::unique_lock lock(mutex_);
    cv_.wait(lock, [&] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  bool open_ = false;
};

TEST(PXDispatchQueue, SyncWaitsForEverythingEnqueuedBeforeItAndJobsQueuedByJobsRunAfterThem) {
  PXRef<PXDispatchQueue> queue = PXDispatchQueue::create();
  Gate gate;
  std::vector<std::string> order;
  queue->async([&] { gate.wait(); });  // holds the queue until another thread opens the gate
  queue->async([&] {
    order.push_back("outer");
    queue->async([&] { order.push_back("inner"); });
    order.push_back("outer end");
  });
  for (int i = 0; i < 100; ++i) queue->async([&] { order.push_back("second"); });
  std::thread opener([&] { gate.open(); });
  long seenBySync = 0;
  queue->sync([&] { seenBySync = std::count(order.begin(), order.end(), "second"); });
  opener.join();
  EXPECT_EQ(seenBySync, 100);
  queue->sync([] {});  // the inner job was enqueued after the first sync's job
  ASSERT_EQ(order.size(), 103u);
  EXPECT_EQ(order[0], "outer");
  EXPECT_EQ(order[1], "outer end");
  EXPECT_EQ(order[2], "second");
  EXPECT_EQ(order.back(), "inner");
  // sync also hands back results through its (uncopied) callable.
  std::string text;
  auto fill = [&text] { text = "filled on the queue"; };
  queue->sync(fill);
  EXPECT_EQ(text, "filled on the queue");
}

TEST(PXDispatchQueue, ManyProducersLoseNothingAndKeepEachProducersOrder) {
  constexpr int kProducers = 8;
  constexpr int kJobsEach = 50000;
  for (PXDispatchQueue::Wake wake : {PXDispatchQueue::Wake::Prompt, PXDispatchQueue::Wake::Deferred}) {
    SCOPED_TRACE(static_cast<int>(wake));
    PXRef<PXDispatchQueue> queue = PXDispatchQueue::create("producers", wake);
    // Plain (non-atomic) state, written only by jobs: jobs running concurrently
    // would be a data race that ThreadSanitizer reports.
    long total = 0;
    std::array<int, kProducers> nextExpected{};
    long outOfOrder = 0;
    Gate start;
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
      producers.emplace_back([&, p] {
        start.wait();
        for (int i = 0; i < kJobsEach; ++i) {
          queue->async([&, p, i] {
            if (nextExpected[p] != i) ++outOfOrder;
            nextExpected[p] = i + 1;
            ++total;
          });
        }
      });
    }
    start.open();
    for (std::thread& t : producers) t.join();
    queue->sync([] {});
    EXPECT_EQ(total, long{kProducers} * kJobsEach);
    EXPECT_EQ(outOfOrder, 0);
  }
}

TEST(PXDispatchQueue, ADeferredQueueRunsJobsThatNobodyWakesItFor) {
  // Each job is enqueued after the worker has run out of work; with deferred
  // wake-up nothing wakes it, so it must come back by itself (a worker that
  // slept for good would leave the wait below hanging).
  PXRef<PXDispatchQueue> queue = PXDispatchQueue::create("deferred", PXDispatchQueue::Wake::Deferred);
  std::atomic<int> ran{0};
  for (int round = 0; round < 50; ++round) {
    queue->async([&] {
      ran.fetch_add(1, std::memory_order_release);
      ran.notify_all();
    });
    ran.wait(round, std::memory_order_acquire);
  }
  EXPECT_EQ(ran.load(), 50);

  // Idle, it stops waking up by itself: after its dozes it sleeps with no
  // timer (a worker that kept polling would keep this loop going until the
  // test's time limit).
  while (!pxkit::internal::dispatchQueueSleepsUntilWoken(*queue)) std::this_thread::yield();
  queue->async([&] {
    ran.fetch_add(1, std::memory_order_release);
    ran.notify_all();
  });
  ran.wait(50, std::memory_order_acquire);  // the first job after that wakes it
  EXPECT_EQ(ran.load(), 51);
}

TEST(PXDispatchQueue, ProducersThatWaitForEachJobNeverMissTheWorkersWakeUp) {
  // Each round lets the worker drain and go to sleep, then wakes it: a lost
  // wake-up would leave a sync waiting forever.
  PXRef<PXDispatchQueue> queue = PXDispatchQueue::create("wakeups");
  std::vector<std::thread> threads;
  std::atomic<int> ran{0};
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 3000; ++i) {
        queue->async([&] { ran.fetch_add(1, std::memory_order_relaxed); });
        queue->sync([] {});
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(ran.load(), 9000);
}

TEST(PXDispatchQueue, CallablesOfEverySizeAreRunOnceAndDestroyed) {
  PXRef<PXDispatchQueue> queue = PXDispatchQueue::create();
  auto token = std::make_shared<int>(0);
  std::array<char, 80> middle{};  // too large for a small node: a large one
  middle[79] = 5;
  std::array<char, 512> big{};  // too large for any node: goes to the heap
  big[511] = 7;
  int smallRuns = 0, middleRuns = 0, bigRuns = 0, moveOnlyRuns = 0, functionRuns = 0;
  queue->async([token, &smallRuns] { ++smallRuns; });
  queue->async([token, middle, &middleRuns] { middleRuns += middle[79]; });
  queue->async([token, big, &bigRuns] { bigRuns += big[511]; });
  queue->async([owned = std::make_unique<int>(3), &moveOnlyRuns] { moveOnlyRuns += *owned; });
  std::function<void()> function = [token, &functionRuns] { ++functionRuns; };
  queue->async(function);                 // copied
  queue->async(std::function<void()>());  // empty: ignored
  queue->sync([] {});
  EXPECT_EQ(smallRuns, 1);
  EXPECT_EQ(middleRuns, 5);
  EXPECT_EQ(bigRuns, 7);
  EXPECT_EQ(moveOnlyRuns, 3);
  EXPECT_EQ(functionRuns, 1);
  // Only our two copies remain: the queued callables were destroyed after running.
  EXPECT_EQ(token.use_count(), 2);
}

TEST(PXDispatchQueue, KnowsItsOwnJobsAndNamesItsThread) {
  PXRef<PXDispatchQueue> queue = PXDispatchQueue::create("org.example.a-long-label");
  PXRef<PXDispatchQueue> other = PXDispatchQueue::create();
  EXPECT_EQ(queue->label(), "org.example.a-long-label");
  EXPECT_EQ(other->label(), "");
  EXPECT_EQ(PXDispatchQueue::current(), nullptr);
  bool isCurrent = false, otherIsCurrent = true;
  PXDispatchQueue* current = nullptr;
  char name[16] = {};
  queue->sync([&] {
    current = PXDispatchQueue::current();
    isCurrent = queue->isCurrent();
    otherIsCurrent = other->isCurrent();
    pthread_getname_np(pthread_self(), name, sizeof name);
  });
  EXPECT_EQ(current, queue.get());
  EXPECT_TRUE(isCurrent);
  EXPECT_FALSE(otherIsCurrent);
  EXPECT_STREQ(name, "org.example.a-l");
  // A job of one queue syncing onto another is fine (only the same queue deadlocks).
  int nested = 0;
  queue->sync([&] { other->sync([&] { nested = PXDispatchQueue::current() == other.get() ? 1 : 2; }); });
  EXPECT_EQ(nested, 1);
}

TEST(PXDispatchQueue, DestroyingAQueueRunsWhatIsLeftFirst) {
  std::atomic<int> ran{0};
  Gate gate;
  {
    PXRef<PXDispatchQueue> queue = PXDispatchQueue::create();
    queue->async([&] { gate.wait(); });
    for (int i = 0; i < 1000; ++i) queue->async([&] { ran.fetch_add(1); });
    std::thread opener([&] { gate.open(); });
    queue = nullptr;  // the destructor drains, then joins
    opener.join();
  }
  EXPECT_EQ(ran.load(), 1000);
}

TEST(PXDispatchQueue, TheLastReferenceMayGoInsideItsOwnJob) {
  std::mutex mutex;
  std::condition_variable cv;
  int ran = 0;
  Gate gate;
  PXWeakRef<PXDispatchQueue> weak;
  {
    PXRef<PXDispatchQueue> queue = PXDispatchQueue::create("self-release");
    weak = queue;
    PXRef<PXDispatchQueue> keep = queue;
    queue->async([&gate, keep]() mutable {
      gate.wait();     // until the main thread has dropped its references
      keep = nullptr;  // the last one: the queue is destroyed on its own worker
    });
    for (int i = 0; i < 100; ++i) {
      queue->async([&] {
        std::lock_guard lock(mutex);
        ++ran;
        cv.notify_all();
      });
    }
  }
  gate.open();
  std::unique_lock lock(mutex);
  cv.wait(lock, [&] { return ran == 100; });  // the rest still ran, on the detached worker
  EXPECT_EQ(ran, 100);
  EXPECT_FALSE(weak.lock());
}

#ifndef NDEBUG
TEST(PXDispatchQueueDeathTest, SyncFromItsOwnJobAbortsInDebugBuilds) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        PXRef<PXDispatchQueue> queue = PXDispatchQueue::create("self");
        queue->sync([&] { queue->sync([] {}); });
      },
      "sync called from a job of the same queue \"self\"");
}
#else
TEST(PXDispatchQueue, SyncFromItsOwnJobRunsAtOnceInReleaseBuilds) {
  PXRef<PXDispatchQueue> queue = PXDispatchQueue::create("self");
  std::vector<int> order;
  queue->sync([&] {
    queue->async([&] { order.push_back(2); });
    queue->sync([&] { order.push_back(1); });
  });
  queue->sync([] {});
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
}
#endif

// Racing threads: the first run throws, one waiting thread runs it instead,
// and every caller that returns sees what that run wrote.
TEST(PXDispatchOnce, RunsOnceForRacingThreadsAndAThrowingRunLeavesTheTokenUnused) {
  PXDispatchOnceToken token;
  std::atomic<int> attempts{0}, threw{0}, sawInitialised{0};
  int* shared = nullptr;
  Gate start;
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      start.wait();
      try {
        PXDispatchOnce(token, [&] {
          if (attempts.fetch_add(1) == 0) throw std::runtime_error("first attempt fails");
          shared = new int(42);
        });
        if (shared && *shared == 42) sawInitialised.fetch_add(1);  // visible to every caller on return
      } catch (const std::runtime_error&) {
        threw.fetch_add(1);
      }
    });
  }
  start.open();
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(attempts.load(), 2);
  EXPECT_EQ(threw.load(), 1);
  EXPECT_EQ(sawInitialised.load(), 7);
  delete shared;
}

}  // namespace

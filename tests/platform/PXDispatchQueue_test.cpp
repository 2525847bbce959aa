#include <gtest/gtest.h>
#include <pxkit/platform/PXDispatchQueue.h>

#include <array>
#include <atomic>
#include <functional>
#include <latch>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

// Racing callers: the first run throws, so exactly one more runs, and every
// caller that returns normally sees what that run wrote (ThreadSanitizer checks
// the plain pointer's hand-over).
TEST(PXDispatchOnce, RunsOnceForRacingThreadsAndAThrowingRunLeavesTheTokenUnused) {
  PXDispatchOnceToken token;
  std::atomic<int> attempts{0}, threw{0}, sawInitialised{0};
  int* shared = nullptr;
  std::latch start(8);
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      start.arrive_and_wait();
      try {
        PXDispatchOnce(token, [&] {
          if (attempts.fetch_add(1) == 0) throw std::runtime_error("the first run fails");
          shared = new int(42);
        });
        if (shared && *shared == 42) sawInitialised.fetch_add(1);
      } catch (const std::runtime_error&) {
        threw.fetch_add(1);
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(attempts.load(), 2);
  EXPECT_EQ(threw.load(), 1);
  EXPECT_EQ(sawInitialised.load(), 7);
  delete shared;
}

// Plain state written only by jobs: jobs running concurrently would be a race ThreadSanitizer reports.
TEST(PXDispatchQueue, ManyProducersLoseNothingAndKeepEachProducersOrder) {
  constexpr int kProducers = 8, kJobsEach = 50000;
  for (PXDispatchQueue::Wake wake : {PXDispatchQueue::Wake::Prompt, PXDispatchQueue::Wake::Deferred}) {
    PXRef<PXDispatchQueue> queue = PXDispatchQueue::create("producers", wake);
    long total = 0, outOfOrder = 0;
    std::array<int, kProducers> nextExpected{};
    std::latch start(kProducers);
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
      producers.emplace_back([&, p] {
        start.arrive_and_wait();
        for (int i = 0; i < kJobsEach; ++i) {
          queue->async([&, p, i] {
            outOfOrder += nextExpected[p] != i;
            nextExpected[p] = i + 1;
            ++total;
          });
        }
      });
    }
    for (std::thread& t : producers) t.join();
    queue->sync([] {});
    EXPECT_EQ(total, long{kProducers} * kJobsEach);
    EXPECT_EQ(outOfOrder, 0);
  }
}

// Each job comes after the worker ran out of work: a lost wake-up would leave the wait hanging.
TEST(PXDispatchQueue, AJobEnqueuedWhileTheWorkerGoesToSleepIsRun) {
  for (PXDispatchQueue::Wake wake : {PXDispatchQueue::Wake::Prompt, PXDispatchQueue::Wake::Deferred}) {
    PXRef<PXDispatchQueue> queue = PXDispatchQueue::create("wake-ups", wake);
    std::atomic<int> ran{0};
    auto job = [&] {
      ran.fetch_add(1, std::memory_order_release);
      ran.notify_all();
    };
    for (int round = 0; round < 50; ++round) {
      queue->async(job);
      ran.wait(round, std::memory_order_acquire);
    }
    // Idle, it stops polling (else this loop runs to the time limit); the next job wakes it.
    while (!pxkit::internal::dispatchQueueSleepsUntilWoken(*queue)) std::this_thread::yield();
    queue->async(job);
    ran.wait(50, std::memory_order_acquire);
    EXPECT_EQ(ran.load(), 51);
  }
}

TEST(PXDispatchQueue, CallablesOfEverySizeAreRunOnceAndDestroyed) {
  PXRef<PXDispatchQueue> queue = PXDispatchQueue::create();
  auto token = std::make_shared<int>(0);
  std::array<char, 80> middle{};  // too large for a small node: a large one
  std::array<char, 512> big{};    // too large for any node: goes to the heap
  middle[79] = 5;
  big[511] = 7;
  int runs = 0;
  queue->async([token, &runs] { runs += 1; });
  queue->async([token, middle, &runs] { runs += middle[79] * 10; });
  queue->async([token, big, &runs] { runs += big[511] * 100; });
  queue->async([owned = std::make_unique<int>(3), &runs] { runs += *owned * 1000; });
  std::function<void()> function = [token, &runs] { runs += 10000; };
  queue->async(function);                 // copied
  queue->async(std::function<void()>());  // empty: ignored
  queue->sync([] {});
  EXPECT_EQ(runs, 13751);
  EXPECT_EQ(token.use_count(), 2);  // ours: the queued copies were destroyed after running
}

// The queue is destroyed on its own worker, which must then detach, not join itself.
TEST(PXDispatchQueue, TheLastReferenceMayGoInsideItsOwnJob) {
  std::atomic<int> ran{0};
  std::latch gate(1);
  PXWeakRef<PXDispatchQueue> weak;
  {
    PXRef<PXDispatchQueue> queue = PXDispatchQueue::create("self-release");
    weak = queue;
    queue->async([&gate, keep = queue]() mutable {
      gate.wait();  // until the main thread has dropped its references
      keep = nullptr;
    });
    for (int i = 0; i < 100; ++i) {
      queue->async([&] {
        ran.fetch_add(1);
        ran.notify_all();
      });
    }
  }
  gate.count_down();
  for (int seen = ran.load(); seen != 100; seen = ran.load()) ran.wait(seen);
  EXPECT_FALSE(weak.lock());
}

}  // namespace

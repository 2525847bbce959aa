#include <gtest/gtest.h>
#include <pxkit/objects/PXObject.h>
#include <pxkit/objects/PXString.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

// Counts live instances so tests can see exactly when destruction happens.
class Tracked : public PXObject {
  PX_DECLARE_CLASS(Tracked)
 public:
  static inline std::atomic<int> live{0};
  Tracked() { ++live; }
  ~Tracked() override { --live; }
  int32_t count = 0;
};

}  // namespace

PX_DEFINE_CLASS(Tracked, PXObject, nullptr)

// One thread drops the last strong reference while another locks a weak one:
// the lock owns a valid object or yields nothing (ASan/TSan see a freed use).
TEST(PXObject, WeakLockRacingWithLastReleaseNeverResurrects) {
  for (int round = 0; round < 2000; ++round) {
    PXRef<Tracked> strong = PXMake<Tracked>();
    PXWeakRef<Tracked> weak = strong;
    std::atomic<bool> go{false};
    std::thread locker([&] {
      while (!go.load()) {
      }
      if (PXRef<Tracked> got = weak.lock()) got->count += 1;
    });
    go.store(true);
    strong = nullptr;
    locker.join();
    ASSERT_EQ(Tracked::live, 0);
  }
}

TEST(PXMonitor, ExcludesOtherThreadsAndNestsOnTheOwner) {
  PXMonitor monitor;
  ASSERT_TRUE(monitor.try_lock());
  ASSERT_TRUE(monitor.try_lock()) << "the owner may take it again";
  monitor.unlock();
  bool otherGotIt = true;
  std::thread([&] { otherGotIt = monitor.try_lock(); }).join();
  EXPECT_FALSE(otherGotIt) << "still held once";
  monitor.unlock();
  EXPECT_FALSE(monitor.isHeldByCurrentThread());

  // A lost update (or, under ThreadSanitizer, a race) shows a broken exclusion.
  int64_t counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 20000; ++i) {
        std::lock_guard outer(monitor);
        std::lock_guard inner(monitor);
        counter += 1;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(counter, 8 * 20000);
}

// Counting is atomic: many threads copying and dropping one string leave it intact.
TEST(PXString, SharedAcrossThreads) {
  PXString shared("a string shared by every thread in this test");
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&shared] {
      for (int i = 0; i < 10000; ++i) PXString copy = shared;
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(shared, "a string shared by every thread in this test");
  EXPECT_EQ(shared.rep()->refs.load(), 1u);
}

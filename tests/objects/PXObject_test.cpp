#include <gtest/gtest.h>
#include <pxkit/objects/PXObject.h>

#include <atomic>
#include <thread>

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
  ASSERT_TRUE(monitor.try_lock() && monitor.try_lock()) << "the owner may take it again";
  monitor.unlock();
  bool otherGotIt = true;
  std::thread([&] { otherGotIt = monitor.try_lock(); }).join();
  EXPECT_FALSE(otherGotIt) << "still held once";
  monitor.unlock();
}

#include <gtest/gtest.h>
#include <pxkit/objects/PXString.h>

#include <string>
#include <thread>
#include <vector>

TEST(PXString, SharedAcrossThreads) {
  // Counting is atomic: many threads copying and dropping one string leave it intact.
  PXString shared("a string shared by every thread in this test");
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&shared] {
      for (int i = 0; i < 10000; ++i) {
        PXString copy = shared;
        ASSERT_EQ(copy.size(), shared.size());
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(shared, "a string shared by every thread in this test");
  EXPECT_EQ(shared.rep()->refs.load(), 1u);
}

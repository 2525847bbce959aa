#include <gtest/gtest.h>
#include <pxkit/objects/PXString.h>

#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

TEST(PXString, AbsentIsNotEmpty) {
  PXString absent;
  PXString fromNull(static_cast<const char*>(nullptr));
  PXString empty("");
  EXPECT_FALSE(absent);
  EXPECT_FALSE(fromNull);
  EXPECT_TRUE(empty);
  EXPECT_TRUE(empty.empty());
  EXPECT_EQ(absent.view(), "");
  EXPECT_STREQ(absent.c_str(), "");
  EXPECT_FALSE(absent == empty);
  EXPECT_TRUE(absent == PXString());
  EXPECT_FALSE(absent == "");  // an absent string equals no text, not even ""
  EXPECT_TRUE(empty == "");
}

TEST(PXString, EmptyStringsShareOneStorage) {
  PXString a(""), b{std::string_view()}, c{std::string()};
  EXPECT_EQ(a.rep(), b.rep());
  EXPECT_EQ(a.rep(), c.rep());
  EXPECT_STREQ(a.c_str(), "");
}

TEST(PXString, CopiesShareBytesAndKeepThemTerminated) {
  std::string text(100, 'q');
  PXString a(text);
  PXString b = a;
  EXPECT_EQ(a.c_str(), b.c_str());
  EXPECT_EQ(a.c_str()[100], '\0');
  EXPECT_EQ(a.size(), 100u);
  PXString moved = std::move(b);
  EXPECT_FALSE(b);  // NOLINT(bugprone-use-after-move): moved-from is absent
  EXPECT_EQ(moved, a);
  // Embedded NUL bytes are part of the string.
  PXString withNul(std::string_view("a\0b", 3));
  EXPECT_EQ(withNul.size(), 3u);
  EXPECT_NE(withNul, PXString("a"));
}

TEST(PXString, OrderAndHashFollowTheBytes) {
  EXPECT_LT(PXString("abc"), PXString("abd"));
  EXPECT_LT(PXString("ab"), PXString("abc"));
  EXPECT_EQ(std::hash<PXString>()(PXString("key")), std::hash<std::string_view>()("key"));
  std::unordered_set<PXString> set{"a", "b", PXString("a")};
  EXPECT_EQ(set.size(), 2u);
}

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

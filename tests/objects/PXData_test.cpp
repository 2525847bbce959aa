#include <gtest/gtest.h>
#include <pxkit/objects/PXData.h>

#include <numeric>
#include <vector>

TEST(PXData, DescriptionCopiesAndMutation) {
  auto counting = [](size_t length) {
    std::vector<uint8_t> bytes(length);
    std::iota(bytes.begin(), bytes.end(), uint8_t{0});
    return PXData::dataWithBytes(std::move(bytes));
  };
  EXPECT_EQ(PXData::dataWithBytes("\xff\x80", 2)->description(), "{length = 2, bytes = 0xff80}");
  // Longer: the first 24 bytes, " ... ", the last 8.
  EXPECT_EQ(counting(33)->description(),
            "{length = 33, bytes = 0x000102030405060708090a0b0c0d0e0f1011121314151617 ... 191a1b1c1d1e1f20}");
  EXPECT_EQ(PXData::data().get(), PXData::dataWithBytes(std::vector<uint8_t>{}).get());
  auto frozen = PXData::dataWithString("ab");
  EXPECT_EQ(frozen->copy().get(), frozen.get());
  auto live = PXDynamicCast<PXMutableData>(frozen->mutableCopy());
  ASSERT_TRUE(live);
  live->appendBytes("cd", 2);
  live->appendData(*live);  // itself: the bytes are taken before they grow
  EXPECT_EQ(live->view(), "abcdabcd");
  EXPECT_EQ(frozen->view(), "ab");
  auto snapshot = live->copy();
  EXPECT_FALSE(snapshot->isMutable());
  live->setLength(5);
  EXPECT_EQ(live->view(), "abcda");
  EXPECT_EQ(PXDynamicCast<PXData>(snapshot)->view(), "abcdabcd");
}

#include <gtest/gtest.h>
#include <pxkit/objects/PXData.h>

#include <numeric>
#include <vector>

namespace {

PXRef<PXData> counting(size_t length) {
  std::vector<uint8_t> bytes(length);
  std::iota(bytes.begin(), bytes.end(), uint8_t{0});
  return PXData::dataWithBytes(std::move(bytes));
}

}  // namespace

TEST(PXData, DescriptionShowsLengthAndBytes) {
  struct Row {
    PXRef<PXData> data;
    const char* text;
  };
  const Row rows[] = {
      {PXData::data(), "{length = 0, bytes = 0x}"},
      {PXData::dataWithString("abc"), "{length = 3, bytes = 0x616263}"},
      {PXData::dataWithBytes("\xff\x80", 2), "{length = 2, bytes = 0xff80}"},
      {counting(32),
       "{length = 32, bytes = 0x000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f}"},
      // Longer: the first 24 bytes, " ... ", the last 8.
      {counting(33),
       "{length = 33, bytes = 0x000102030405060708090a0b0c0d0e0f1011121314151617 ... 191a1b1c1d1e1f20}"},
  };
  for (const Row& row : rows) EXPECT_EQ(row.data->description(), row.text);
}

TEST(PXData, CopiesAndMutation) {
  EXPECT_EQ(PXData::data().get(), PXData::dataWithBytes(nullptr, 0).get());
  EXPECT_EQ(PXData::data().get(), PXData::dataWithBytes(std::vector<uint8_t>{}).get());
  auto frozen = PXData::dataWithString("ab");
  EXPECT_EQ(frozen->copy().get(), frozen.get());

  auto live = PXDynamicCast<PXMutableData>(frozen->mutableCopy());
  ASSERT_TRUE(live);
  EXPECT_TRUE(live->isMutable());
  live->appendBytes("cd", 2);
  live->appendData(*PXData::dataWithString("e"));
  live->appendData(*live);
  EXPECT_EQ(live->view(), "abcdeabcde");
  EXPECT_EQ(frozen->view(), "ab");

  auto snapshot = live->copy();
  EXPECT_NE(snapshot.get(), live.get());
  EXPECT_FALSE(snapshot->isMutable());
  live->setLength(3);
  EXPECT_EQ(live->view(), "abc");
  live->setLength(5);
  EXPECT_EQ(live->view(), std::string_view("abc\0\0", 5));
  EXPECT_EQ(PXDynamicCast<PXData>(snapshot)->view(), "abcdeabcde");
}

// The fuzzer's entry point (it aborts on any violated property) on its seeds and their edits.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "support/PXFuzzSeeds.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

TEST(JSONDecoderFuzz, SeedsAndTheirEditsHoldTheFuzzersProperties) {
  const std::vector<std::string> seeds = PXFuzzSeeds("tests/json/fuzz_seeds/json_decoder");
  ASSERT_GE(seeds.size(), 20u);
  std::vector<std::string> pieces;
  std::string_view joined =
      "\xc2\x85|\xe2\x80\xa8|\xed\xa0\x80|\xf0\x9f\x98\x80|\\u|\\ud83d\\ude00|true|null|1e400|-0.5e-3|"
      "18446744073709551615|\"k\":|/* c */|// c\n|\"long enough to be shared\"";
  for (size_t bar; (bar = joined.find('|')) != std::string_view::npos; joined.remove_prefix(bar + 1))
    pieces.emplace_back(joined.substr(0, bar));
  pieces.emplace_back(joined);
  for (char c : std::string_view("[]{}\",:\\/*-+.eE07 \t\n\r\xff")) pieces.emplace_back(1, c);
  PXFuzzMutator mutate(3, pieces);
  for (int i = 0; i < 6000; ++i) {
    std::string input = seeds[mutate.pick(seeds.size())];
    for (int m = 0; m < 3; ++m) {
      ASSERT_EQ(LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size()), 0);
      input = mutate(input);
    }
  }
}

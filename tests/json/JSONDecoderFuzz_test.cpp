// The decoder fuzzer's entry point, fed a few thousand generated and mutated
// inputs, so that its properties are checked in every ordinary test run. The
// entry aborts on any violated property.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "json/JSONTestDocuments.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

void feed(uint8_t options, const std::string& text) {
  std::string input(1, static_cast<char>(options));
  input += text;
  ASSERT_EQ(LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size()), 0);
}

// One random edit: flip, insert, delete, duplicate a stretch, or cut the tail.
std::string mutate(JSONTestDocuments& g, std::string text) {
  static const char kInteresting[] = "[]{}\",:\\/*-+.eE0\t\n\r \xc2\x85\xe2\x80\xa8\xed\xa0\x80\xff";
  const size_t edits = 1 + g.pick(3);
  for (size_t e = 0; e < edits; ++e) {
    const size_t at = text.empty() ? 0 : g.pick(text.size());
    switch (g.pick(5)) {
      case 0:
        if (!text.empty()) text[at] = static_cast<char>(g.pick(256));
        break;
      case 1:
        text.insert(at, 1, kInteresting[g.pick(sizeof kInteresting - 1)]);
        break;
      case 2:
        if (!text.empty()) text.erase(at, 1 + g.pick(4));
        break;
      case 3:
        text.insert(at, text.substr(at, g.pick(16)));
        break;
      default:
        text.resize(at);
        break;
    }
  }
  return text;
}

}  // namespace

TEST(JSONDecoderFuzz, GeneratedAndMutatedInputsHoldTheFuzzersProperties) {
  JSONTestDocuments g(3);
  for (int i = 0; i < 3000; ++i) {
    const uint8_t options = static_cast<uint8_t>(g.pick(16));
    std::string text = g.document(1 + static_cast<int>(g.pick(4)), (options & 1) != 0);
    feed(options, text);
    for (int m = 0; m < 2; ++m) {
      text = mutate(g, text);
      feed(static_cast<uint8_t>(g.pick(256)), text);
    }
  }
}

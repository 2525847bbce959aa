// The preprocessor fuzzer's entry point, fed with its seeds, edits of them and
// rules glued from pieces that matter to the scanner, so that its properties are
// checked in every ordinary test run. The entry aborts on any violated property.
#include <gtest/gtest.h>

#include <cstdint>
#include <iterator>
#include <string>

#include "support/PXFuzzSeeds.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

TEST(RulePreprocessorFuzz, SeedsAndGeneratedRulesHoldTheFuzzersProperties) {
  static const char* const kPieces[] = {
      "${",       "}",   "(",   ")",    ";",     "=",     "\\",       "'",
      "\"",       "$",   "{",   "echo", "none",  "seven", "nosuch",   "fallbackValue",
      "a",        "b",   " ",   "==",   "$fnc0", "fnc",   "\xc3\xa9", "${echo(",
      "${seven}", "')}", "\\}",
  };
  const std::vector<std::string> pieces(std::begin(kPieces), std::end(kPieces));
  std::vector<std::string> rules = PXFuzzSeeds("tests/rules/fuzz_seeds/rule_preprocessor");
  ASSERT_GE(rules.size(), 5u);
  PXFuzzMutator mutate(20240611, pieces);  // fixed: the same rules on every run
  for (int i = 0; i < 3000; ++i) {
    std::string rule;
    for (size_t p = 1 + mutate.pick(12); p > 0; --p) rule += pieces[mutate.pick(pieces.size())];
    rules.push_back(rule);
    rules.push_back(mutate(rules[mutate.pick(rules.size())]));
  }
  for (const std::string& rule : rules) {
    SCOPED_TRACE(rule);
    ASSERT_EQ(LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(rule.data()), rule.size()), 0);
  }
}

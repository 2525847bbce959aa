// The predicate fuzzer's entry point on its seeds and edits of them: orderly
// errors, canonical text that reads back, no crash or leak, in every test run.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "support/PXFuzzSeeds.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

TEST(PXPredicateFuzz, EntryHoldsItsPropertiesOnMutatedRules) {
  const std::vector<std::string> seeds = PXFuzzSeeds("tests/rules/fuzz_seeds/predicate_parser");
  ASSERT_GE(seeds.size(), 5u);
  // Pieces that make edits reach deeper than random bytes do.
  PXFuzzMutator mutate(20121, {"(", ")",    "{",     "}",      "[c]",  "'",         "\"",        "\\",
                               ".", "$n",   " AND ", " OR ",   "NOT ", "ANY ",      " == ",      " LIKE ",
                               "*", "?",    " IN ",  "nil",    "1e9",  "-",         "**",        "[LAST]",
                               "é", "\xff", "#size", "@count", "0x",   " BETWEEN ", " MATCHES ", ","});
  for (const std::string& seed : seeds) {
    for (int i = 0; i < 1500; ++i) {
      const std::string rule = i == 0 ? seed : mutate(seed);
      ASSERT_EQ(LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(rule.data()), rule.size()), 0)
          << rule;
    }
  }
}

// The predicate fuzzer's entry point on mutated rules: a short run of what
// `make fuzz` runs for minutes, so the fuzzer's properties (orderly errors,
// canonical text that reads back, no crash or leak) hold in every test run.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

int run(const std::string& rule) {
  return LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(rule.data()), rule.size());
}

TEST(PXPredicateFuzz, EntryHoldsItsPropertiesOnMutatedRules) {
  const std::vector<std::string> seeds = {
      "version.os >= '10.6' AND $fnc0 == YES AND nums[SIZE] > 2",
      "name LIKE[cd] 'a?c*' OR text CONTAINS[cd] 'brulee'",
      "ANY nums BETWEEN {5, 1} AND NONE nums IN {7, 8}",
      "(1 + 2) ** 3 == 27 AND name MATCHES '[a-c]+' AND 0x10 == 0b10000",
      "NOT (version.#size == nil || $n * -2.5e1 < 0) AND \"it's\" != 'x\\u00e9'",
  };
  // Pieces that make mutations reach deeper than random bytes do.
  const std::vector<std::string> pieces = {
      "(",    ")",      "{",    "}",    "[c]",       "'",         "\"",    "\\",     ".",   "$n",  " AND ",
      " OR ", "NOT ",   "ANY ", " == ", " LIKE ",    "*",         "?",     " IN ",   "nil", "1e9", "-",
      "**",   "[LAST]", "é",    "\xff", " BETWEEN ", " MATCHES ", "#size", "@count", "0x",  ","};
  std::mt19937 random(20121);  // fixed: the same inputs every run
  auto pick = [&](size_t n) { return static_cast<size_t>(random() % n); };
  for (const std::string& seed : seeds) {
    ASSERT_EQ(run(seed), 0);
    for (int i = 0; i < 1500; ++i) {
      std::string rule = seed;
      for (int edits = 1 + static_cast<int>(pick(3)); edits > 0 && !rule.empty(); --edits) {
        const size_t at = pick(rule.size());
        switch (pick(4)) {
          case 0:
            rule[at] = static_cast<char>(pick(256));
            break;
          case 1:
            rule.erase(at, 1 + pick(4));
            break;
          case 2:
            rule.insert(at, pieces[pick(pieces.size())]);
            break;
          default:
            rule.insert(at, rule.substr(pick(rule.size()), pick(8)));  // a copy of a stretch
            break;
        }
      }
      ASSERT_EQ(run(rule), 0) << rule;
    }
  }
}

}  // namespace

// The preprocessor fuzzer's entry point, fed with its seeds and a few thousand
// generated and mutated rules, so that its properties are checked in every
// ordinary test run. The entry aborts on any violated property.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <random>
#include <string>

#include "support/PXTestPaths.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

void feed(const std::string& rule) {
  ASSERT_EQ(LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(rule.data()), rule.size()), 0);
}

TEST(RulePreprocessorFuzz, SeedsHoldTheFuzzersProperties) {
  const std::filesystem::path seeds = PXTestSourceDir() + "/tests/rules/fuzz_seeds/rule_preprocessor";
  size_t fed = 0;
  for (const auto& entry : std::filesystem::directory_iterator(seeds)) {
    SCOPED_TRACE(entry.path().string());
    feed(PXTestReadFile(entry.path().string()));
    ++fed;
  }
  EXPECT_GE(fed, 5u);
}

TEST(RulePreprocessorFuzz, GeneratedRulesHoldTheFuzzersProperties) {
  // Pieces that matter to the scanner, glued at random.
  static const char* const kPieces[] = {
      "${",       "}",   "(",   ")",    ";",     "=",     "\\",       "'",
      "\"",       "$",   "{",   "echo", "none",  "seven", "nosuch",   "fallbackValue",
      "a",        "b",   " ",   "==",   "$fnc0", "fnc",   "\xc3\xa9", "${echo(",
      "${seven}", "')}", "\\}",
  };
  std::mt19937 random(20240611);  // fixed: the same rules on every run
  for (int i = 0; i < 3000; ++i) {
    std::string rule;
    const int pieces = 1 + static_cast<int>(random() % 12);
    for (int p = 0; p < pieces; ++p) rule += kPieces[random() % std::size(kPieces)];
    SCOPED_TRACE(rule);
    feed(rule);
    if (!rule.empty()) {
      rule.erase(random() % rule.size(), 1);
      feed(rule);
    }
  }
}

}  // namespace

// A fuzz target's seed files and deterministic random edits of them, for fuzzers run as tests:
//   PXFuzzMutator mutate(7, {"[", "\\u"});  // fixed seed: the same inputs every run
//   for (const std::string& seed : PXFuzzSeeds("tests/json/fuzz_seeds/json_decoder")) feed(mutate(seed));
#pragma once

#include <algorithm>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "support/PXTestPaths.h"

// The contents of every file of <source tree>/<dir>, in file name order.
inline std::vector<std::string> PXFuzzSeeds(const std::string& dir) {
  std::vector<std::filesystem::path> paths(std::filesystem::directory_iterator(PXTestSourceDir() + "/" + dir),
                                           {});
  std::sort(paths.begin(), paths.end());
  std::vector<std::string> seeds;
  for (const auto& path : paths) seeds.push_back(PXTestReadFile(path.string()));
  return seeds;
}

// One to three random edits: a byte replaced, one of `pieces` inserted, a stretch erased, a
// stretch copied elsewhere, or the tail cut.
class PXFuzzMutator {
 public:
  PXFuzzMutator(uint32_t seed, std::vector<std::string> pieces) : random_(seed), pieces_(std::move(pieces)) {}

  size_t pick(size_t n) { return n == 0 ? 0 : random_() % n; }

  std::string operator()(std::string text) {
    for (size_t edits = 1 + pick(3); edits > 0; --edits) {
      const size_t at = pick(text.size() + 1);
      const size_t kind = pick(5);
      if (kind == 0 && at < text.size())
        text[at] = static_cast<char>(pick(256));
      else if (kind == 1)
        text.insert(at, pieces_[pick(pieces_.size())]);
      else if (kind == 2)
        text.erase(at, 1 + pick(4));
      else if (kind == 3)
        text.insert(at, text.substr(pick(text.size() + 1), pick(16)));
      else if (kind == 4 && pick(4) == 0)  // rarer: it throws the most away
        text.resize(at);
    }
    return text;
  }

 private:
  std::mt19937 random_;
  std::vector<std::string> pieces_;
};

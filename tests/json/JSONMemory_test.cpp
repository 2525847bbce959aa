// Failing the Nth allocation (operator new is replaced), for every N: reported, then the next call works.
#include <gtest/gtest.h>
#include <pxkit/json/JSONDecoder.h>
#include <pxkit/json/JSONSerializer.h>

#include <cstdlib>
#include <functional>
#include <new>
#include <set>
#include <string>

namespace {

thread_local long allocationsUntilFailure = -1;  // -1: never fail

}  // namespace

#if !defined(__clang__)  // the replaced new takes from malloc and its delete frees: GCC cannot see that
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
void* operator new(std::size_t size) {
  if (allocationsUntilFailure >= 0 && allocationsUntilFailure-- == 0) throw std::bad_alloc();
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}

TEST(JSONMemory, EveryAllocationFailureIsReportedWithItsMessage) {
  std::string text = "{\"escaped\": \"" + std::string(100, 'x') + "\\n" + std::string(100, 'y') + "\"";
  for (int i = 0; i < 80; ++i)
    text += ", \"k" + std::to_string(i % 40) + "\": [\"long enough for the cache\"]";
  text += ", \"list\": [0";
  for (int i = 1; i < 200; ++i) text += ", " + std::to_string(i * 1.5);
  const PXValue doc = objectFromJSONString(PXString(text + "]}"));
  const std::string written = JSONString(doc).str();
  const std::pair<std::function<PXValue(JSONDecoder&, PXErrorRef*)>, std::set<std::string>> operations[] = {
      {[&](JSONDecoder& d, PXErrorRef* e) { return d.objectWithUTF8String(text.data(), text.size(), e); },
       {"Unable to allocate state structure.", "Unable to resize objects array.",
        "Unable to resize temporary buffer.", "Unable to allocate memory for hash table."}},
      {[&](JSONDecoder&, PXErrorRef* e) { return PXValue(JSONDataWithOptions(doc, 0, e)); },
       {"Unable to create NSData object"}},
      {[&](JSONDecoder&, PXErrorRef* e) { return PXValue(JSONStringWithOptions(doc, 0, e)); },
       {"Unable to create NSString object"}},
  };
  text += "]}";
  auto asText = [](const PXValue& v) {
    return v.isData() ? std::string(v.dataValue()->view())
                      : (v.isString() ? PXString(v.stringValue()) : JSONString(v)).str();
  };

  for (const auto& [run, messages] : operations) {
    std::set<std::string> seen;
    for (long n = 0;; ++n) {
      auto decoder = JSONDecoder::decoder();  // fresh: its state is allocated on first use
      PXErrorRef error;
      allocationsUntilFailure = n;
      const PXValue result = run(*decoder, &error);
      const bool reached = allocationsUntilFailure < 0;
      allocationsUntilFailure = -1;
      // Either the decoder could do without it (the cache), or it is reported and the next call works.
      if (!reached || result) {
        EXPECT_EQ(asText(result), written) << n;
        if (!reached) break;
        continue;
      }
      ASSERT_TRUE(error) << n;
      seen.insert(error->localizedDescription().str());
      EXPECT_EQ(asText(run(*decoder, nullptr)), written) << n;
    }
    EXPECT_EQ(seen, messages);
  }
}

// Running out of memory at every single allocation of a parse or a write: each
// failure is reported with the codec's memory message (never a crash, a leak or
// a half-built result), and the next call works again. This binary replaces the
// global operator new with one told to fail the Nth allocation on this thread.
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

void* allocate(std::size_t size) {
  if (allocationsUntilFailure >= 0 && allocationsUntilFailure-- == 0) throw std::bad_alloc();
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}

}  // namespace

void* operator new(std::size_t size) {
  return allocate(size);
}
void* operator new[](std::size_t size) {
  return allocate(size);
}
void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete[](void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
  std::free(p);
}

namespace {

// A document that needs every kind of memory the decoder uses: its state, deep
// stacks, a long escaped string, a large dictionary (the duplicate-key table)
// and long strings (the cache).
std::string demandingDocument() {
  std::string text = "{\"escaped\": \"" + std::string(100, 'x') + "\\n" + std::string(100, 'y') + "\", ";
  text += "\"long\": [\"a string long enough for the cache\", \"a string long enough for the cache\"], ";
  text += "\"big\": {";
  for (int i = 0; i < 40; ++i)
    text += (i ? ", \"k" : "\"k") + std::to_string(i) + "\": [" + std::to_string(i) + "]";
  text += "}, \"list\": [";
  for (int i = 0; i < 200; ++i) text += (i ? ", " : "") + std::to_string(i * 1.5);
  return text + "]}";
}

}  // namespace

TEST(JSONMemory, EveryAllocationFailureIsReportedWithItsMessage) {
  const std::string text = demandingDocument();
  const PXValue doc = objectFromJSONString(PXString(text));
  const std::string written = JSONString(doc).str();
  const std::set<std::string> decoding = {
      "Unable to allocate state structure.", "Unable to resize objects array.",
      "Unable to resize temporary buffer.", "Unable to allocate memory for hash table."};
  struct {
    std::function<PXValue(JSONDecoder&, PXErrorRef*)> run;  // the document, or the written bytes
    std::set<std::string> messages;
    long atLeast;  // allocations: one per container at least when decoding
  } operations[] = {
      {[&](JSONDecoder& d, PXErrorRef* e) { return d.objectWithUTF8String(text.data(), text.size(), e); },
       decoding, 45},
      {[&](JSONDecoder& d, PXErrorRef* e) {
         return d.mutableObjectWithUTF8String(text.data(), text.size(), e);
       },
       decoding, 45},
      {[&](JSONDecoder&, PXErrorRef* e) { return PXValue(JSONDataWithOptions(doc, 0, e)); },
       {"Unable to create NSData object"},
       1},
      {[&](JSONDecoder&, PXErrorRef* e) { return PXValue(JSONStringWithOptions(doc, 0, e)); },
       {"Unable to create NSString object"},
       1},
  };
  auto asText = [](const PXValue& v) {
    return v.isString() ? std::string(v.stringValue())
           : v.isData() ? std::string(v.dataValue()->view())
                        : JSONString(v).str();
  };
  for (const auto& operation : operations) {
    std::set<std::string> seen;
    for (long n = 0;; ++n) {
      auto decoder = JSONDecoder::decoder();  // fresh: its state is allocated on first use
      PXErrorRef error;
      allocationsUntilFailure = n;
      const PXValue result = operation.run(*decoder, &error);
      const bool reached = allocationsUntilFailure < 0;
      allocationsUntilFailure = -1;
      // Either the failed allocation was one the decoder could do without (the
      // cache), or it is reported, and the same decoder works the next time.
      if (!reached || result) {
        EXPECT_EQ(asText(result), written) << n;
        if (reached) continue;
        EXPECT_GE(n, operation.atLeast);
        break;
      }
      ASSERT_TRUE(error) << n;
      seen.insert(error->localizedDescription().str());
      EXPECT_EQ(asText(operation.run(*decoder, nullptr)), written) << n;
    }
    EXPECT_EQ(seen, operation.messages);
  }
}

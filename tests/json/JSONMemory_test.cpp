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
thread_local bool failureReached = false;

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

// Called by a `call` below right before and right after the operation under test.
void startFailing(long n) {
  allocationsUntilFailure = n;
}
void stopFailing() {
  failureReached = allocationsUntilFailure < 0;
  allocationsUntilFailure = -1;
}

// Fails allocation number `n` (from 0) of `call`'s operation, for each `n` until
// it makes fewer (at least `atLeast`); returns the messages seen. `call` returns "" on success.
std::set<std::string> failEachAllocation(long atLeast, const std::function<std::string(long n)>& call) {
  std::set<std::string> seen;
  for (long n = 0;; ++n) {
    const std::string message = call(n);
    if (!failureReached) {
      EXPECT_GE(n, atLeast);
      EXPECT_EQ(message, "");
      return seen;
    }
    if (!message.empty()) seen.insert(message);
  }
}

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

TEST(JSONMemory, EveryAllocationFailureInTheDecoderIsReported) {
  const std::string text = demandingDocument();
  const PXValue expected = objectFromJSONString(PXString(text));
  ASSERT_TRUE(expected);
  for (bool mutableForm : {false, true}) {
    SCOPED_TRACE(mutableForm);
    auto read = [&](JSONDecoder& decoder, PXErrorRef* error) {
      return mutableForm ? decoder.mutableObjectWithUTF8String(text.data(), text.size(), error)
                         : decoder.objectWithUTF8String(text.data(), text.size(), error);
    };
    // At least one allocation per container: the injection reaches them all.
    const auto seen = failEachAllocation(45, [&](long n) -> std::string {
      auto decoder = JSONDecoder::decoder();  // fresh: its state is allocated on first use
      PXErrorRef error;
      startFailing(n);
      const PXValue result = read(*decoder, &error);
      stopFailing();
      // Either the failed allocation was one the decoder could do without (the
      // cache), or it is reported, and the same decoder reads the document next time.
      if (result) return result.isEqual(expected) ? "" : "a different result";
      EXPECT_TRUE(read(*decoder, nullptr).isEqual(expected));
      return error ? error->localizedDescription().str() : "no error";
    });
    EXPECT_EQ(seen, (std::set<std::string>{
                        "Unable to allocate state structure.", "Unable to resize objects array.",
                        "Unable to resize temporary buffer.", "Unable to allocate memory for hash table."}));
  }
}

// Reported with the one message of the result object that could not be made.
TEST(JSONMemory, ResultObjectsThatCannotBeMadeAreReported) {
  const PXValue doc = objectFromJSONString(PXString(demandingDocument()));
  ASSERT_TRUE(doc);
  const std::string expected = JSONString(doc).str();
  for (bool asData : {true, false}) {
    const auto seen = failEachAllocation(1, [&](long n) -> std::string {
      PXErrorRef error;
      startFailing(n);
      PXRef<PXData> data = asData ? JSONDataWithOptions(doc, 0, &error) : nullptr;
      PXString string = asData ? PXString() : JSONStringWithOptions(doc, 0, &error);
      stopFailing();
      if (!data && string.isAbsent()) return error ? error->localizedDescription().str() : "no error";
      return (asData ? std::string(data->view()) : string.str()) == expected ? "" : "a different result";
    });
    EXPECT_EQ(seen, std::set<std::string>{asData ? "Unable to create NSData object"
                                                 : "Unable to create NSString object"});
  }
}

// Running out of memory at every single allocation of a parse or a write: each
// failure is reported with the codec's memory message (never a crash, a leak or
// a half-built result), and the next call works again.
//
// This test binary replaces the global operator new with one that can be told
// to fail the Nth allocation from now on this thread.
#include <gtest/gtest.h>
#include <pxkit/json/JSONDecoder.h>
#include <pxkit/json/JSONSerializer.h>

#include <cstdlib>
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

// Fails the allocation number `n` (from 0) made by `call`, then no other.
// Returns whether that allocation was reached.
template <class F>
bool failingAllocation(long n, F&& call) {
  allocationsUntilFailure = n;
  call();
  const bool reached = allocationsUntilFailure < 0;
  allocationsUntilFailure = -1;
  return reached;
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
  text += "]}";
  return text;
}

}  // namespace

TEST(JSONMemory, EveryAllocationFailureInTheDecoderIsReported) {
  const std::string text = demandingDocument();
  const PXValue expected = objectFromJSONString(PXString(text));
  ASSERT_TRUE(expected);
  const std::set<std::string> memoryMessages = {
      "Unable to allocate state structure.", "Unable to resize objects array.",
      "Unable to resize temporary buffer.", "Unable to allocate memory for hash table."};
  for (bool mutableForm : {false, true}) {
    std::set<std::string> seen;
    long n = 0;
    for (;; ++n) {
      auto decoder = JSONDecoder::decoder();  // fresh: its state is allocated on first use
      PXValue result;
      PXErrorRef error;
      const bool reached = failingAllocation(n, [&] {
        result = mutableForm ? decoder->mutableObjectWithUTF8String(text.data(), text.size(), &error)
                             : decoder->objectWithUTF8String(text.data(), text.size(), &error);
      });
      if (!reached) {
        ASSERT_TRUE(result.isEqual(expected));  // every allocation has been failed once
        break;
      }
      if (result) {
        // The failed allocation was one the decoder could do without (the cache).
        ASSERT_TRUE(result.isEqual(expected)) << "allocation " << n;
        continue;
      }
      ASSERT_TRUE(error) << "allocation " << n;
      const std::string message = error->localizedDescription().str();
      ASSERT_TRUE(memoryMessages.count(message)) << "allocation " << n << ": " << message;
      seen.insert(message);
      // The same decoder reads the document once memory is back.
      ASSERT_TRUE((mutableForm ? decoder->mutableObjectWithUTF8String(text.data(), text.size())
                               : decoder->objectWithUTF8String(text.data(), text.size()))
                      .isEqual(expected))
          << "allocation " << n;
    }
    EXPECT_GT(n, 44);  // at least one allocation per container: the injection reached them all
    EXPECT_EQ(seen, memoryMessages);
  }
}

// Each allocation of a write failed in turn: reported with the one message of
// the result object that could not be made.
TEST(JSONMemory, ResultObjectsThatCannotBeMadeAreReported) {
  const PXValue doc = objectFromJSONString(PXString(demandingDocument()));
  ASSERT_TRUE(doc);
  const std::string expected = JSONString(doc).str();
  for (bool asData : {true, false}) {
    std::set<std::string> seen;
    for (long n = 0;; ++n) {
      PXRef<PXData> data;
      PXString string;
      PXErrorRef error;
      const bool reached = failingAllocation(n, [&] {
        if (asData) {
          data = JSONDataWithOptions(doc, 0, &error);
        } else {
          string = JSONStringWithOptions(doc, 0, &error);
        }
      });
      if (!reached) {
        EXPECT_EQ(asData ? std::string(data->view()) : string.str(), expected);
        break;
      }
      ASSERT_TRUE(error && !data && string.isAbsent()) << "allocation " << n;
      seen.insert(error->localizedDescription().str());
    }
    EXPECT_EQ(seen, std::set<std::string>{asData ? "Unable to create NSData object"
                                                 : "Unable to create NSString object"});
  }
}

#include <gtest/gtest.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXException.h>
#include <pxkit/objects/PXFormat.h>

#include <functional>
#include <latch>
#include <string>
#include <thread>
#include <vector>

namespace {

using Entry = PXDictionary::Entry;

std::vector<std::string> keysOf(const PXDictionary& d) {
  std::vector<std::string> keys;
  for (const auto& [key, value] : d) keys.push_back(key.description().str());
  return keys;
}

PXRef<PXDictionary> numbered(int count) {
  std::vector<Entry> entries;
  for (int i = 0; i < count; ++i) entries.emplace_back(PXFormat("key%d", i), i);
  return PXDictionary::dictionaryWithEntries(std::move(entries));
}

}  // namespace

TEST(PXDictionary, MisuseRaisesWithExactMessages) {
  const std::string set = "PXMutableDictionary setObject:forKey:", build = "initWithObjects:forKeys:count:";
  const std::string immutable = "PXDictionary setValue:forKey:]: mutating method sent to immutable object";
  const std::pair<std::function<void()>, std::string> rows[] = {
      {[] { PXMutableDictionary::dictionary()->setObject(1, PXValue()); },
       set + "]: attempt to insert nil key"},
      {[] { PXMutableDictionary::dictionary()->setObject(PXValue(), 0.5); },
       set + "]: attempt to insert nil value (key: 0.5)"},
      {[] { numbered(2)->setValueForKey(1, "key0"); }, immutable},
      {[] {
         (void)PXDictionary::dictionaryWithEntries({{PXValue(), 1}});
       },
       "PXDictionary " + build + "]: attempt to insert nil key"},
      {[] {
         (void)PXMake<PXMutableDictionary>(std::vector<Entry>{{"c", PXValue()}});
       },
       "PXMutableDictionary " + build + "]: attempt to insert nil value (key: c)"},
  };
  for (const auto& [call, reason] : rows) {
    SCOPED_TRACE(reason);
    try {
      call();
      ADD_FAILURE() << "no exception";
    } catch (const PXException& e) {
      EXPECT_EQ(e.name(), kPXInvalidArgumentException);
      EXPECT_EQ(e.reason().str(), "*** -[" + reason);
    }
  }
}

// Keys are snapshots: a mutable key changed later does not move its entry.
TEST(PXDictionary, KeysAreCopiedDuplicatesFoldAndKeyValueCoding) {
  auto key = PXMutableArray::array();
  auto d = PXMutableDictionary::dictionary();
  d->setObject(1, PXValue(key));
  key->addObject("b");
  EXPECT_TRUE(d->objectForKey(PXValue(PXArray::array())));
  EXPECT_TRUE(numbered(20)->isEqual(*numbered(20)->mutableCopyDictionary()));
  EXPECT_TRUE(d->isEqual(*d) && !d->isEqual(*PXArray::array()) && !numbered(2)->isEqual(*numbered(3)));
  EXPECT_FALSE(numbered(2)->isEqual(*PXDictionary::dictionaryWithEntries({{"key0", 0}, {"c", 1}})));
  d->setValueForKey(5, "five");
  EXPECT_TRUE(d->valueForKey("@count").isEqual(2));
  d->setValueForKey(PXValue(), "five");  // absent removes
  EXPECT_EQ(d->count(), 1u);
  d->removeAllObjects();
  EXPECT_EQ(numbered(12)->valueForKey("key11").intValue(), 11);
  std::vector<int> seen;
  numbered(4)->enumerateKeysAndObjects([&](const PXValue&, const PXValue& value, bool* stop) {
    seen.push_back(value.intValue());
    *stop = value.intValue() == 1;
  });
  EXPECT_EQ(seen, (std::vector<int>{0, 1}));
  d->setObject("old", "key2");
  d->addEntriesFromDictionary(*numbered(4));
  d->addEntriesFromDictionary(*d);
  EXPECT_EQ(keysOf(*d), (std::vector<std::string>{"key2", "key0", "key1", "key3"}));
  EXPECT_TRUE(d->allValues()->isEqual(*PXArray::arrayWithObjects({2, 0, 1, 3})));
  // A later duplicate replaces the earlier value in the earlier place, in a short list and a hashed one.
  for (int size : {2, 30}) {
    std::vector<Entry> entries{{"a key long enough for the heap", 0}, {1.0, "number"}};
    for (int i = 2; i < size; ++i) entries.emplace_back(PXFormat("k%d", i), i);
    entries.emplace_back("a key long enough for the heap", "last");
    entries.emplace_back(true, "bool");  // the numeric key 1 and true are the same key
    auto dup = PXDictionary::dictionaryWithEntries(std::move(entries));
    EXPECT_EQ(keysOf(*dup)[1], "1");
    EXPECT_EQ(dup->count(), static_cast<size_t>(size));
    EXPECT_EQ(dup->objectForKey("a key long enough for the heap").stringValue(), "last");
    EXPECT_EQ(dup->objectForKey(1u).stringValue(), "bool");
  }
}

// The index of an immutable dictionary is built by whichever readers come
// first, all at once: every reader finds every key (ThreadSanitizer checks the
// index's publication).
TEST(PXDictionary, ConcurrentFirstReadersOfAnImmutableDictionary) {
  // Copied from a mutable dictionary: no index until the first lookup.
  auto building = PXMutableDictionary::dictionary();
  for (int i = 0; i < 500; ++i) building->setObject(i, PXFormat("key%d", i));
  const PXRef<PXDictionary> d = building->copyDictionary();
  constexpr int kThreads = 4;
  std::latch start(kThreads);
  std::vector<std::thread> threads;
  std::vector<int> wrong(kThreads, 0);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      start.arrive_and_wait();
      for (int i = 0; i < 500; ++i) {
        const int at = (i * 7 + t * 131) % 500;
        if (d->objectForKey(PXFormat("key%d", at)).intValue() != at) ++wrong[t];
      }
      if (d->objectForKey("missing")) ++wrong[t];
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(wrong, std::vector<int>(kThreads, 0));
}

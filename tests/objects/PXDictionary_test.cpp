#include <gtest/gtest.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXException.h>
#include <pxkit/objects/PXFormat.h>

#include <algorithm>
#include <functional>
#include <latch>
#include <random>
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

PXRef<PXDictionary> numbered(int count, const char* prefix = "key") {
  std::vector<Entry> entries;
  for (int i = 0; i < count; ++i) entries.emplace_back(PXFormat("%s%d", prefix, i), i);
  return PXDictionary::dictionaryWithEntries(std::move(entries));
}

}  // namespace

TEST(PXDictionary, MisuseRaisesWithExactMessages) {
  // "*** -[<class> <method>]: " and the template: a nil key, a nil value
  // naming its key, or a change to an immutable dictionary.
  const std::string set = "PXMutableDictionary setObject:forKey:", build = "initWithObjects:forKeys:count:";
  const std::string immutable = "PXDictionary setValue:forKey:]: mutating method sent to immutable object";
  const std::pair<std::function<void()>, std::string> rows[] = {
      {[] { PXMutableDictionary::dictionary()->setObject(1, PXValue()); },
       set + "]: attempt to insert nil key"},
      {[] { PXMutableDictionary::dictionary()->setObject(PXValue(), "launches"); },
       set + "]: attempt to insert nil value (key: launches)"},
      {[] { PXMutableDictionary::dictionary()->setObject(PXValue(), 0.5); },
       set + "]: attempt to insert nil value (key: 0.5)"},
      {[] { numbered(2)->setValueForKey(1, "key0"); }, immutable},
      {[] { PXDictionary::dictionary()->setValueForKey(PXValue(), "k"); }, immutable},
      {[] {
         (void)PXDictionary::dictionaryWithEntries({{PXValue(), 1}});
       },
       "PXDictionary " + build + "]: attempt to insert nil key"},
      {[] {
         (void)PXDictionary::dictionaryWithEntries({{"a", 1}, {"b", PXValue()}});
       },
       "PXDictionary " + build + "]: attempt to insert nil value (key: b)"},
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

TEST(PXDictionary, LaterDuplicatesReplaceEarlierValuesAtBuild) {
  for (int size : {2, 8, 9, 30}) {
    SCOPED_TRACE(size);
    std::vector<Entry> entries;
    for (int i = 0; i < size; ++i) entries.emplace_back(PXFormat("k%d", i), i);
    entries.emplace_back("k0", "last");
    entries.emplace_back(1.0, "number");  // the numeric key 1 ...
    entries.emplace_back(true, "bool");   // ... and true are the same key
    auto d = PXDictionary::dictionaryWithEntries(std::move(entries));
    EXPECT_EQ(d->count(), static_cast<size_t>(size) + 1);
    EXPECT_EQ(keysOf(*d).front(), "k0");
    EXPECT_EQ(keysOf(*d).back(), "1");
    EXPECT_EQ(d->objectForKey("k0").stringValue(), "last");
    EXPECT_EQ(d->objectForKey(1).stringValue(), "bool");
    EXPECT_EQ(d->objectForKey(1u).stringValue(), "bool");
    // Every other key is found where it was put (past eight entries through the hash index).
    for (int i = 1; i < size; ++i) EXPECT_EQ(d->objectForKey(PXFormat("k%d", i)).intValue(), i) << i;
  }
}

// A mutable dictionary checked against a plain model through random
// insertions, replacements and removals that cross the size where lookups
// switch from a scan to the hash index, many times over.
// Values and keys taken from the dictionary itself, just as its entries move
// out of the room kept with the object. (AddressSanitizer reports the use
// after free if they are not taken first.)
TEST(PXDictionary, EntriesOfItselfSurviveTheMoveOutOfItsRoom) {
  const PXValue value("a value long enough to live on the heap");
  for (size_t room : {0, 1, 2}) {
    SCOPED_TRACE(room);
    auto d = PXMutableDictionary::dictionaryWithCapacity(room);
    d->setObject(value, "first key, long enough for the heap");
    d->setObject(*d->find("first key, long enough for the heap"), d->entries()[0].second);
    d->setObject(d->entries()[1].first, "third");
    ASSERT_EQ(d->count(), 3u);
    EXPECT_TRUE(d->objectForKey(value).isEqual(value));
    EXPECT_TRUE(d->objectForKey("third").isEqual(value));
    d->setObject(*d->find("third"), "first key, long enough for the heap");  // replaced in place
    EXPECT_EQ(d->count(), 3u);
  }
}

TEST(PXDictionary, ConcurrentReadersOfAnImmutableDictionary) {
  // Every reader may be the one that builds the lazy index; all must agree.
  auto d = numbered(500);
  constexpr int kThreads = 4;
  std::latch start(kThreads);
  std::vector<std::thread> threads;
  std::vector<int> wrong(kThreads, 0);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      start.arrive_and_wait();
      for (int i = 0; i < 500; ++i) {
        int at = (i * 7 + t * 131) % 500;
        if (d->objectForKey(PXFormat("key%d", at)).intValue() != at) ++wrong[t];
      }
      if (d->objectForKey("missing")) ++wrong[t];
    });
  }
  for (auto& thread : threads) thread.join();
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(wrong[t], 0);
}

TEST(PXDictionary, KeysAreCopiedOnInsertion) {
  auto key = PXMutableArray::array();
  key->addObject("a");
  auto d = PXMutableDictionary::dictionary();
  d->setObject(1, PXValue(key));
  key->addObject("b");  // the stored key is a snapshot and does not change
  EXPECT_TRUE(d->objectForKey(PXValue(PXArray::arrayWithObjects({"a"}))));
  EXPECT_FALSE(d->entries()[0].first.mutableArrayValue());
}

TEST(PXDictionary, EqualityIgnoresOrder) {
  auto ab = PXDictionary::dictionaryWithEntries({{"a", 1}, {"b", 2}});
  auto ba = PXDictionary::dictionaryWithEntries({{"b", 2.0}, {"a", true}});
  auto other = PXDictionary::dictionaryWithEntries({{"a", 1}, {"c", 2}});
  EXPECT_TRUE(ab->isEqual(*ba));
  EXPECT_FALSE(ab->isEqual(*other));
  EXPECT_FALSE(ab->isEqual(*PXArray::arrayWithObjects({"a", "b"})));
  EXPECT_TRUE(numbered(20)->isEqual(*numbered(20)->mutableCopyDictionary()));
}

TEST(PXDictionary, KeyValueCodingReadsAndWritesEntries) {
  auto d = PXMutableDictionary::dictionary();
  d->setValueForKey(5, "five");
  EXPECT_EQ(d->valueForKey("five").intValue(), 5);
  EXPECT_FALSE(d->valueForKey("six"));
  EXPECT_TRUE(d->valueForKey("@count").isEqual(1));
  d->setValueForKey(PXValue(), "five");  // absent removes
  EXPECT_EQ(d->count(), 0u);
  EXPECT_EQ(numbered(12)->valueForKey("key11").intValue(), 11);
}

TEST(PXDictionary, KeysValuesAndEnumeration) {
  auto d = numbered(4);
  EXPECT_TRUE(d->allKeys()->isEqual(*PXArray::arrayWithObjects({"key0", "key1", "key2", "key3"})));
  EXPECT_TRUE(d->allValues()->isEqual(*PXArray::arrayWithObjects({0, 1, 2, 3})));
  std::vector<int> seen;
  d->enumerateKeysAndObjects([&](const PXValue&, const PXValue& value, bool* stop) {
    seen.push_back(value.intValue());
    if (value.intValue() == 1) *stop = true;
  });
  EXPECT_EQ(seen, (std::vector<int>{0, 1}));
  auto merged = PXMutableDictionary::dictionary();
  merged->setObject("old", "key2");
  merged->addEntriesFromDictionary(*d);
  merged->addEntriesFromDictionary(*merged);
  EXPECT_EQ(keysOf(*merged), (std::vector<std::string>{"key2", "key0", "key1", "key3"}));
  EXPECT_EQ(merged->objectForKey("key2").intValue(), 2);
}

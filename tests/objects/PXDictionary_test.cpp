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

TEST(PXDictionary, LaterDuplicatesReplaceEarlierValuesAtBuild) {
  for (int size : {2, 8, 9, 30}) {
    SCOPED_TRACE(size);
    std::vector<Entry> entries;
    for (int i = 0; i < size; ++i) entries.emplace_back(PXFormat("k%d", i), i);
    entries.emplace_back("k0", "last");
    entries.emplace_back(1.0, "number");  // the numeric key 1 and true are the same key
    entries.emplace_back(true, "bool");
    auto d = PXDictionary::dictionaryWithEntries(std::move(entries));
    EXPECT_EQ(d->count(), static_cast<size_t>(size) + 1);
    EXPECT_EQ(keysOf(*d).front(), "k0");
    EXPECT_EQ(keysOf(*d).back(), "1");
    EXPECT_EQ(d->objectForKey("k0").stringValue(), "last");
    EXPECT_EQ(d->objectForKey(1u).stringValue(), "bool");
    // Past eight entries through the hash index.
    for (int i = 1; i < size; ++i) EXPECT_EQ(d->objectForKey(PXFormat("k%d", i)).intValue(), i) << i;
  }
}

// Values and keys taken from the dictionary itself, just as its entries move
// out of the room kept with the object (ASan reports a use after free otherwise).
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
  }
}

// Every reader may be the one that builds the lazy index; all must agree.
TEST(PXDictionary, ConcurrentReadersOfAnImmutableDictionary) {
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

// Keys are snapshots: a mutable key changed later does not move its entry.
TEST(PXDictionary, KeysAreCopiedAndEqualityIgnoresOrder) {
  auto key = PXMutableArray::array();
  auto d = PXMutableDictionary::dictionary();
  d->setObject(1, PXValue(key));
  key->addObject("b");
  EXPECT_TRUE(d->objectForKey(PXValue(PXArray::array())));
  EXPECT_TRUE(numbered(20)->isEqual(*numbered(20)->mutableCopyDictionary()));
  EXPECT_TRUE(PXDictionary::dictionaryWithEntries({{PXValue(key), 1}})->objectForKey(PXValue(key)));
  EXPECT_TRUE(d->isEqual(*d) && !d->isEqual(*PXArray::array()) && !numbered(2)->isEqual(*numbered(3)));
  EXPECT_FALSE(d->find(PXValue()) || PXDictionary::dictionaryWithEntries({})->count());
  EXPECT_FALSE(numbered(2)->isEqual(*PXDictionary::dictionaryWithEntries({{"key0", 0}, {"c", 1}})));
}

TEST(PXDictionary, KeyValueCodingAndEnumeration) {
  auto d = PXMutableDictionary::dictionary();
  d->setValueForKey(5, "five");
  EXPECT_TRUE(d->valueForKey("@count").isEqual(1));
  d->setValueForKey(PXValue(), "five");  // absent removes
  EXPECT_EQ(d->count(), 0u);
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
  EXPECT_EQ(d->objectForKey("key2").intValue(), 2);
  EXPECT_TRUE(d->allValues()->isEqual(*PXArray::arrayWithObjects({2, 0, 1, 3})));
}

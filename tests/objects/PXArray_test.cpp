#include <gtest/gtest.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXException.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

PXRef<PXMutableArray> mutableOf(std::initializer_list<PXValue> values) {
  return PXArray::arrayWithObjects(values)->mutableCopyArray();
}

std::string text(const PXArray& array) {
  return array.description().str();
}

}  // namespace

// "*** -[<class> <method>]: " and "index (i) beyond bounds (n)" (a range
// exception) or "attempt to insert nil" (invalid argument); the array is left as it was.
TEST(PXArray, MisuseRaisesWithExactMessagesAndChangesNothing) {
  auto two = mutableOf({1, 2});
  const auto range = [](int i, int n) {
    return "index (" + std::to_string(i) + ") beyond bounds (" + std::to_string(n) + ")";
  };
  const std::string nil = "attempt to insert nil";
  const std::tuple<std::function<void()>, const char*, std::string> rows[] = {
      {[] { (void)PXArray::array()->objectAtIndex(0); }, "PXArray objectAtIndex:", range(0, 0)},
      {[&] { (void)two->objectAtIndex(2); }, "PXMutableArray objectAtIndex:", range(2, 2)},
      {[&] { two->insertObject(9, 3); }, "PXMutableArray insertObject:atIndex:", range(3, 2)},
      {[&] { two->removeObjectAtIndex(2); }, "PXMutableArray removeObjectAtIndex:", range(2, 2)},
      {[] { PXMutableArray::array()->removeLastObject(); }, "PXMutableArray removeLastObject", range(0, 0)},
      {[&] { two->replaceObjectAtIndex(2, 2); },
       "PXMutableArray replaceObjectAtIndex:withObject:", range(2, 2)},
      {[&] { two->addObject(PXValue()); }, "PXMutableArray addObject:", nil},
      {[&] { two->insertObject(PXValue(), 0); }, "PXMutableArray insertObject:atIndex:", nil},
      {[&] { two->replaceObjectAtIndex(0, PXValue()); },
       "PXMutableArray replaceObjectAtIndex:withObject:", nil},
      {[] {
         (void)PXArray::arrayWithValues({1, PXValue()});
       },
       "PXArray initWithObjects:count:", nil},
      {[] {
         std::vector<PXValue> values{1, PXValue()};
         (void)PXMutableArray::arrayByTakingValues(values);
       },
       "PXMutableArray initWithObjects:count:", nil},
      {[&] {
         two->setArray({2, PXValue()});
       },
       "PXMutableArray setArray:", nil},
  };
  for (const auto& [call, method, problem] : rows) {
    const std::string reason = "*** -[" + std::string(method) + "]: " + problem;
    SCOPED_TRACE(reason);
    try {
      call();
      ADD_FAILURE() << "no exception";
    } catch (const PXException& e) {
      EXPECT_EQ(e.name(), problem == nil ? kPXInvalidArgumentException : kPXRangeException);
      EXPECT_EQ(std::string(e.what()), reason);
    }
  }
  EXPECT_EQ(text(*two), "(\n    1,\n    2\n)");
}

// Each mutation runs on an ordinary mutable array, on one packed with its
// elements (which must move them to ordinary storage first) and on one packed
// with room to spare (which appends in place).
TEST(PXArray, MutationsTable) {
  const std::pair<std::function<void(PXMutableArray&)>, const char*> rows[] = {
      {[](PXMutableArray& a) { a.addObject("x"); }, "( 1, 2, 3, 1, x )"},
      {[](PXMutableArray& a) { a.insertObject(0, 0); }, "( 0, 1, 2, 3, 1 )"},
      {[](PXMutableArray& a) { a.removeObjectAtIndex(1); }, "( 1, 3, 1 )"},
      {[](PXMutableArray& a) { a.removeLastObject(); }, "( 1, 2, 3 )"},
      {[](PXMutableArray& a) { a.removeObject(1.0); }, "( 2, 3 )"},  // equal values of any kind
      {[](PXMutableArray& a) { a.removeObjectIdenticalTo(1.0); }, "( 1, 2, 3, 1 )"},
      {[](PXMutableArray& a) { a.removeObjectsInArray(a); }, "( )"},
      {[](PXMutableArray& a) { a.replaceObjectAtIndex(2, "z"); }, "( 1, 2, z, 1 )"},
      {[](PXMutableArray& a) { a.addObjectsFromArray(a); }, "( 1, 2, 3, 1, 1, 2, 3, 1 )"},
      {[](PXMutableArray& a) { a.sortUsingComparator([](auto& x, auto& y) { return y.compare(x); }); },
       "( 3, 2, 1, 1 )"},
  };
  for (const auto& [change, after] : rows) {
    for (int kind : {0, 1, 2}) {  // ordinary, packed, packed with room
      SCOPED_TRACE(std::string(after) + ", kind " + std::to_string(kind));
      std::vector<PXValue> values{1, 2, 3, 1};
      PXRef<PXMutableArray> array = kind == 0   ? mutableOf({1, 2, 3, 1})
                                    : kind == 1 ? PXMutableArray::arrayByTakingValues(values)
                                                : PXMutableArray::arrayWithCapacity(8);
      if (kind == 2) {
        for (int v : {1, 2, 3, 1}) array->addObject(v);
      }
      change(*array);
      std::string folded;
      for (char c : text(*array)) {
        if (c == '\n') c = ' ';
        if (c != ' ' || folded.empty() || folded.back() != ' ') folded += c;
      }
      EXPECT_EQ(folded, after);
    }
  }
}

// One thread drops the last strong reference while another locks a weak one:
// the lock owns a valid object or yields nothing (ASan/TSan see a freed use).
TEST(PXObject, WeakLockRacingWithLastReleaseNeverResurrects) {
  for (int round = 0; round < 2000; ++round) {
    PXRef<PXMutableArray> strong = PXMutableArray::array();
    PXWeakRef<PXMutableArray> weak = strong;
    std::atomic<bool> go{false};
    std::thread locker([&] {
      while (!go.load()) {
      }
      if (PXRef<PXMutableArray> got = weak.lock()) got->addObject(round);
    });
    go.store(true);
    strong = nullptr;
    locker.join();
    ASSERT_FALSE(weak.lock());
  }
}

// Eight threads take the monitor twice over: a lost update shows broken exclusion.
TEST(PXMonitor, ExcludesOtherThreadsAndNestsOnTheOwner) {
  PXMonitor monitor;
  int64_t counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 20000; ++i) {
        std::lock_guard outer(monitor);
        std::lock_guard inner(monitor);
        counter += 1;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(counter, 8 * 20000);
}

TEST(PXArray, LookupsAndKeyValueCoding) {
  const PXValue heap("a string long enough for the heap");
  auto array = PXArray::arrayWithObjects({"a", 2, heap, 2.0});
  EXPECT_EQ(array->indexOfObjectIdenticalTo(2.0), 3u);
  EXPECT_EQ(array->indexOfObjectIdenticalTo(PXValue("a string long enough for the heap")), kPXNotFound);
  EXPECT_FALSE(PXArray::array()->firstObject() || PXArray::array()->lastObject());
  EXPECT_TRUE(array->isEqual(*array) && !array->isEqual(*PXDictionary::dictionary()));
  auto people = PXArray::arrayWithObjects({PXDictionary::dictionaryWithEntries({{"name", "Ann"}}),
                                           PXDictionary::dictionaryWithEntries({{"age", 4}})});
  EXPECT_TRUE(people->valueForKey("name").isEqual(PXArray::arrayWithObjects({"Ann", PXValue::null()})));
  EXPECT_TRUE(people->valueForKey("@count").isEqual(2));
  EXPECT_THROW((void)people->valueForKey("@unknown"), PXException);
  EXPECT_THROW((void)array->valueForKey("length"), PXException);  // a string has no keys
}

// Property-list style: quoted unless plain, escapes, nesting by four spaces.
TEST(PXArray, DescriptionInPropertyListStyle) {
  EXPECT_EQ(text(*PXArray::arrayWithObjects({"plain", "two words", "", "a\"b\\c", "line\nbreak"})),
            "(\n    plain,\n    \"two words\",\n    \"\",\n    \"a\\\"b\\\\c\",\n    \"line\\nbreak\"\n)");
  EXPECT_EQ(text(*PXArray::arrayWithObjects({0.5, -1, true, PXValue::null(), PXDate(0)})),
            "(\n    \"0.5\",\n    \"-1\",\n    1,\n    \"<null>\",\n    \"2001-01-01 00:00:00 +0000\"\n)");
  EXPECT_EQ(text(*PXArray::arrayWithObjects({PXArray::arrayWithObjects({1}), PXArray::array(),
                                             PXDictionary::dictionaryWithEntries({{"k", "v"}})})),
            "(\n    (\n        1\n    ),\n    (\n    ),\n    {\n        k = v;\n    }\n)");
}

#include <gtest/gtest.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXException.h>

#include <functional>
#include <string>
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

TEST(PXArray, MisuseRaisesWithExactMessages) {
  // "*** -[<class> <method>]: " and one of two templates: index (i) beyond
  // bounds (n) (a range exception) or attempt to insert nil (invalid argument).
  auto three = PXArray::arrayWithObjects({1, 2, 3});
  const auto range = [](int i, int n) {
    return "index (" + std::to_string(i) + ") beyond bounds (" + std::to_string(n) + ")";
  };
  const std::string nil = "attempt to insert nil";
  const std::tuple<std::function<void()>, const char*, std::string> rows[] = {
      {[&] { (void)three->objectAtIndex(3); }, "PXArray objectAtIndex:", range(3, 3)},
      {[] { (void)PXArray::array()->objectAtIndex(0); }, "PXArray objectAtIndex:", range(0, 0)},
      {[] { (void)mutableOf({1})->objectAtIndex(1); }, "PXMutableArray objectAtIndex:", range(1, 1)},
      {[] {
         mutableOf({1, 2, 3})->insertObject(9, 5);
       },
       "PXMutableArray insertObject:atIndex:", range(5, 3)},
      {[] {
         mutableOf({1, 2})->removeObjectAtIndex(2);
       },
       "PXMutableArray removeObjectAtIndex:", range(2, 2)},
      {[] { PXMutableArray::array()->removeLastObject(); }, "PXMutableArray removeLastObject", range(0, 0)},
      {[] { mutableOf({1})->replaceObjectAtIndex(1, 2); },
       "PXMutableArray replaceObjectAtIndex:withObject:", range(1, 1)},
      {[] { mutableOf({1})->addObject(PXValue()); }, "PXMutableArray addObject:", nil},
      {[] { mutableOf({1})->insertObject(PXValue(), 0); }, "PXMutableArray insertObject:atIndex:", nil},
      {[] { mutableOf({1})->replaceObjectAtIndex(0, PXValue()); },
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
      {[] {
         mutableOf({1})->setArray({2, PXValue()});
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
      EXPECT_EQ(e.reason().str(), reason);
      EXPECT_EQ(std::string(e.what()), reason);
    }
  }
}

TEST(PXArray, FailedMutationsLeaveTheArrayAsItWas) {
  auto array = mutableOf({1, 2});
  EXPECT_THROW(array->insertObject(3, 3), PXException);
  EXPECT_THROW(array->addObject(PXValue()), PXException);
  EXPECT_THROW(array->replaceObjectAtIndex(0, PXValue()), PXException);
  EXPECT_EQ(text(*array), "(\n    1,\n    2\n)");
}

// Each mutation runs on an ordinary mutable array, on one packed with its
// elements (which must move them to ordinary storage first) and on one packed
// with room to spare (which appends in place).
TEST(PXArray, MutationsTable) {
  struct Row {
    const char* name;
    std::function<void(PXMutableArray&)> change;
    const char* after;  // description with the newlines and indents folded to " "
  };
  const Row rows[] = {
      {"add", [](PXMutableArray& a) { a.addObject("x"); }, "( 1, 2, 3, 1, x )"},
      {"insert at the end", [](PXMutableArray& a) { a.insertObject(9, a.count()); }, "( 1, 2, 3, 1, 9 )"},
      {"insert at the front", [](PXMutableArray& a) { a.insertObject(0, 0); }, "( 0, 1, 2, 3, 1 )"},
      {"remove at", [](PXMutableArray& a) { a.removeObjectAtIndex(1); }, "( 1, 3, 1 )"},
      {"remove last", [](PXMutableArray& a) { a.removeLastObject(); }, "( 1, 2, 3 )"},
      {"remove equal values of any kind", [](PXMutableArray& a) { a.removeObject(1.0); }, "( 2, 3 )"},
      {"remove identical only", [](PXMutableArray& a) { a.removeObjectIdenticalTo(1.0); }, "( 1, 2, 3, 1 )"},
      {"remove identical", [](PXMutableArray& a) { a.removeObjectIdenticalTo(3); }, "( 1, 2, 1 )"},
      {"remove in array",
       [](PXMutableArray& a) {
         a.removeObjectsInArray(*PXArray::arrayWithObjects({true, 3}));
       },
       "( 2 )"},
      {"remove itself", [](PXMutableArray& a) { a.removeObjectsInArray(a); }, "( )"},
      {"remove all", [](PXMutableArray& a) { a.removeAllObjects(); }, "( )"},
      {"replace", [](PXMutableArray& a) { a.replaceObjectAtIndex(2, "z"); }, "( 1, 2, z, 1 )"},
      {"add from array",
       [](PXMutableArray& a) {
         a.addObjectsFromArray(*PXArray::arrayWithObjects({7, 8}));
       },
       "( 1, 2, 3, 1, 7, 8 )"},
      {"add itself", [](PXMutableArray& a) { a.addObjectsFromArray(a); }, "( 1, 2, 3, 1, 1, 2, 3, 1 )"},
      {"sort descending",
       [](PXMutableArray& a) { a.sortUsingComparator([](auto& x, auto& y) { return y.compare(x); }); },
       "( 3, 2, 1, 1 )"},
      {"sort keeps the order of equals: odd before even",
       [](PXMutableArray& a) {
         a.addObject(5);
         a.sortUsingComparator([](auto& x, auto& y) {
           return PXValue(x.intValue() % 2 == 0).compare(PXValue(y.intValue() % 2 == 0));
         });
       },
       "( 1, 3, 1, 5, 2 )"},
  };
  auto packedOf = [](std::vector<PXValue> values) { return PXMutableArray::arrayByTakingValues(values); };
  for (const Row& row : rows) {
    for (const char* kind : {"ordinary", "packed", "packed with room"}) {
      SCOPED_TRACE(std::string(row.name) + ", " + kind);
      PXRef<PXMutableArray> array;
      if (kind == std::string("ordinary")) {
        array = mutableOf({1, 2, 3, 1});
      } else if (kind == std::string("packed")) {
        array = packedOf({1, 2, 3, 1});
      } else {
        array = PXMutableArray::arrayWithCapacity(8);
        for (int v : {1, 2, 3, 1}) array->addObject(v);
      }
      row.change(*array);
      std::string folded;
      for (char c : text(*array)) {
        if (c == '\n') c = ' ';
        if (c == ' ' && !folded.empty() && folded.back() == ' ') continue;
        folded += c;
      }
      EXPECT_EQ(folded, row.after);
    }
  }
}

// Adding or inserting an element of the array itself, just as the elements
// move out of the room kept with the object: the value must be taken first.
// (AddressSanitizer reports the use after free otherwise.)
TEST(PXArray, ElementsOfItselfSurviveTheMoveOutOfItsRoom) {
  const PXValue first("the first element, long enough for the heap");
  const PXValue second("the second element, long enough for the heap");
  for (size_t room : {0, 1, 2}) {
    SCOPED_TRACE(room);
    auto array = PXMutableArray::arrayWithCapacity(room);
    array->addObject(first);
    array->addObject(second);
    array->addObject(array->objectAtIndex(0));
    array->insertObject(array->objectAtIndex(1), 0);
    array->replaceObjectAtIndex(2, array->objectAtIndex(0));
    ASSERT_EQ(array->count(), 4u);
    EXPECT_TRUE(array->objectAtIndex(0).isEqual(second));
    EXPECT_TRUE(array->objectAtIndex(1).isEqual(first));
    EXPECT_TRUE(array->objectAtIndex(2).isEqual(second));
    EXPECT_TRUE(array->objectAtIndex(3).isEqual(first));
  }
}

TEST(PXArray, LookupsByEqualityAndIdentity) {
  auto heap = PXValue("a string long enough for the heap");
  auto array = PXArray::arrayWithObjects({"a", 2, heap, 2.0});
  EXPECT_EQ(array->indexOfObject(2.0), 1u);
  EXPECT_EQ(array->indexOfObject(true), kPXNotFound);
  EXPECT_EQ(array->indexOfObjectIdenticalTo(2.0), 3u);
  EXPECT_EQ(array->indexOfObjectIdenticalTo(heap), 2u);
  EXPECT_EQ(array->indexOfObjectIdenticalTo(PXValue("a string long enough for the heap")), kPXNotFound);
  EXPECT_TRUE(array->containsObject("a"));
  EXPECT_FALSE(array->containsObject("A"));
  EXPECT_EQ(array->firstObject().stringValue(), "a");
  EXPECT_TRUE(array->lastObject().isIdenticalTo(2.0));
  EXPECT_FALSE(PXArray::array()->firstObject());
  EXPECT_FALSE(PXArray::array()->lastObject());
  auto numbers = array->filteredArray([](const PXValue& v) { return v.isNumber(); });
  EXPECT_EQ(numbers->count(), 2u);
}

TEST(PXArray, DescriptionInPropertyListStyle) {
  struct Row {
    PXRef<PXArray> array;
    const char* text;
  };
  const Row rows[] = {
      {PXArray::array(), "(\n)"},
      {PXArray::arrayWithObjects({1, 2}), "(\n    1,\n    2\n)"},
      {PXArray::arrayWithObjects({"plain", "two words", "", "a\"b\\c", "line\nbreak"}),
       "(\n    plain,\n    \"two words\",\n    \"\",\n    \"a\\\"b\\\\c\",\n    \"line\\nbreak\"\n)"},
      {PXArray::arrayWithObjects({0.5, -1, true, PXValue::null(), PXDate(0)}),
       "(\n    \"0.5\",\n    \"-1\",\n    1,\n    \"<null>\",\n    \"2001-01-01 00:00:00 +0000\"\n)"},
      {PXArray::arrayWithObjects({PXArray::arrayWithObjects({1}), PXArray::array(),
                                  PXDictionary::dictionaryWithEntries({{"k", "v"}})}),
       "(\n    (\n        1\n    ),\n    (\n    ),\n    {\n        k = v;\n    }\n)"},
  };
  for (const Row& row : rows) EXPECT_EQ(text(*row.array), row.text);
}

TEST(PXArray, ValueForKeyMapsOverTheElements) {
  auto people = PXArray::arrayWithObjects({PXDictionary::dictionaryWithEntries({{"name", "Ann"}}),
                                           PXDictionary::dictionaryWithEntries({{"age", 4}})});
  PXValue names = people->valueForKey("name");
  ASSERT_TRUE(names.isArray());
  EXPECT_TRUE(names.arrayValue()->isEqual(*PXArray::arrayWithObjects({"Ann", PXValue::null()})));
  EXPECT_TRUE(people->valueForKey("@count").isEqual(2));
  auto strings = PXArray::arrayWithObjects({"not an object"});
  try {
    (void)strings->valueForKey("length");
    ADD_FAILURE() << "no exception";
  } catch (const PXException& e) {
    EXPECT_EQ(e.name(), kPXUndefinedKeyException);
    EXPECT_NE(e.reason().view().find("[<NSString "), std::string_view::npos);
    EXPECT_NE(e.reason().view().find("not key value coding-compliant for the key length."),
              std::string_view::npos);
  }
}

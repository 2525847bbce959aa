#include <gtest/gtest.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXException.h>
#include <pxkit/objects/PXFormat.h>
#include <pxkit/objects/PXObject.h>

#include <string>

namespace {

class KVCPlace : public PXObject {
  PX_DECLARE_CLASS(KVCPlace)
 public:
  PXString city;
  PXRef<PXDictionary> facts;
};

class KVCPerson : public PXObject {
  PX_DECLARE_CLASS(KVCPerson)
 public:
  bool active = false;
  int32_t age = 0;
  int64_t visits = 0;
  uint64_t bytes = 0;
  double height = 0;
  PXString name;
  PXRef<KVCPlace> home;
  PXRef<KVCPerson> friendPerson;
  PXRef<PXArray> tags;  // copy property
  PXString greeting() const { return PXFormat("hello %@", name); }
  int32_t doubled() const { return age * 2; }
  void setDoubled(int32_t v) { setObservable(age, v / 2, "age"); }
};

// A subclass adds properties and answers unknown keys itself.
class KVCEmployee : public KVCPerson {
  PX_DECLARE_CLASS(KVCEmployee)
 public:
  PXString employer;
  PXValue valueForUndefinedKey(std::string_view key) const override { return PXFormat("fallback:%@", key); }
};

// Answers whole paths itself: "fact.<name>" from a table, plain keys from
// another, everything else through the ordinary lookup.
class KVCRouter : public PXObject {
  PX_DECLARE_CLASS(KVCRouter)
 public:
  mutable int pathCalls = 0;
  PXValue valueForKeyPath(std::string_view keyPath) const override {
    ++pathCalls;
    if (keyPath.starts_with("fact.")) return keyPath == "fact.none" ? PXValue() : PXValue(keyPath.substr(5));
    return PXObject::valueForKeyPath(keyPath);
  }
  PXValue valueForKey(std::string_view key) const override {
    if (key == "fixed") return 7;
    if (key == "nested") return PXDictionary::dictionaryWithEntries({{"inner", "deep"}});
    if (key == "raising") PXException::raise(kPXUndefinedKeyException, "raised by hand for %@", key);
    if (key == "invalid") PXException::raise(kPXInvalidArgumentException, "not a key problem");
    return PXObject::valueForKey(key);
  }
};

}  // namespace

PX_DEFINE_CLASS(KVCRouter, PXObject, [](PXClassBuilder<KVCRouter>&) {})
PX_DEFINE_CLASS(KVCPlace, PXObject, [](PXClassBuilder<KVCPlace>& c) {
  c.property("city", &KVCPlace::city);
  c.property("facts", &KVCPlace::facts);
})
PX_DEFINE_CLASS(KVCPerson, PXObject, [](PXClassBuilder<KVCPerson>& c) {
  c.property("active", &KVCPerson::active);
  c.property("age", &KVCPerson::age);
  c.property("visits", &KVCPerson::visits);
  c.property("bytes", &KVCPerson::bytes);
  c.property("height", &KVCPerson::height);
  c.property("name", &KVCPerson::name);
  c.property("home", &KVCPerson::home);
  c.property("friendPerson", &KVCPerson::friendPerson);
  c.property("tags", &KVCPerson::tags, PXPropertyOwnership::Copy);
  c.computed("greeting", &KVCPerson::greeting);
  c.computed("doubled", &KVCPerson::doubled, &KVCPerson::setDoubled);
})
PX_DEFINE_CLASS(KVCEmployee, KVCPerson,
                [](PXClassBuilder<KVCEmployee>& c) { c.property("employer", &KVCEmployee::employer); })

namespace {

PXRef<KVCPerson> makeTrio() {
  auto person = PXMake<KVCPerson>();
  person->name = "Ada";
  person->age = 36;
  person->home = PXMake<KVCPlace>();
  person->home->city = "London";
  person->home->facts = PXDictionary::dictionaryWithEntries({{"population", 9000000}, {"river", "Thames"}});
  return person;
}

// The exception's name and reason when `body` raises, or "no exception".
template <class F>
std::string raised(F&& body) {
  try {
    body();
  } catch (const PXException& e) {
    return e.name().str() + " | " + e.reason().str();
  }
  return "no exception";
}

// Each row writes by key and reads back: the value is converted to the
// property's type on the way in (strings read as numbers, doubles truncate).
TEST(PXKeyValueCoding, WritesConvertToThePropertyTypeAndReadsGiveItBack) {
  auto employee = PXMake<KVCEmployee>();  // inherited properties and its own
  struct Row {
    const char* key;
    PXValue written, read;
  } rows[] = {
      {"active", 1, true},
      {"age", "41", 41},
      {"visits", 2.9, 2},
      {"bytes", 18446744073709551615ull, 18446744073709551615ull},
      {"height", "1.65", 1.65},
      {"name", "Grace", "Grace"},
      {"employer", "Initech", "Initech"},
      {"doubled", 90, 90},  // through the computed setter, into age
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.key);
    employee->setValueForKey(row.written, row.key);
    PXValue value = employee->valueForKey(row.key);
    EXPECT_TRUE(value.isEqual(row.read)) << value.description().str();
  }
  EXPECT_EQ(employee->age, 45);
  EXPECT_EQ(employee->valueForKey("greeting").description().str(), "hello Grace");  // computed, read-only

  auto place = PXMake<KVCPlace>();
  employee->setValueForKey(place, "home");
  EXPECT_EQ(employee->valueForKey("home").objectPointer(), place.get());
  employee->setValueForKey(PXValue(), "home");  // absent clears an object property
  EXPECT_FALSE(employee->home);

  // A copy property stores a snapshot, not the caller's mutable array.
  auto tags = PXMutableArray::array();
  tags->addObject("a");
  employee->setValueForKey(tags, "tags");
  tags->addObject("b");
  ASSERT_TRUE(employee->tags);
  EXPECT_EQ(employee->tags->count(), 1u);
}

TEST(PXKeyValueCoding, UndefinedKeysRaiseWithTheKitsMessage) {
  auto person = PXMake<KVCPerson>();
  const void* address = person.get();
  EXPECT_EQ(
      raised([&] { (void)person->valueForKey("shoeSize"); }),
      PXFormat("NSUnknownKeyException | [<KVCPerson %p> valueForUndefinedKey:]: this class is not key value "
               "coding-compliant for the key shoeSize.",
               address)
          .str());
  EXPECT_EQ(
      raised([&] { person->setValueForKey(44, "shoeSize"); }),
      PXFormat("NSUnknownKeyException | [<KVCPerson %p> setValue:forUndefinedKey:]: this class is not key "
               "value coding-compliant for the key shoeSize.",
               address)
          .str());
  // A read-only property cannot be written by key.
  EXPECT_NE(raised([&] { person->setValueForKey("hi", "greeting"); }).find("setValue:forUndefinedKey:"),
            std::string::npos);
  try {
    (void)person->valueForKey("shoeSize");
    FAIL() << "expected an exception";
  } catch (const PXException& e) {
    ASSERT_TRUE(e.userInfo());
    EXPECT_EQ(e.userInfo()->objectForKey("NSUnknownUserInfoKey").description().str(), "shoeSize");
  }
}

TEST(PXKeyValueCoding, SetValueForKeyPathSetsOnTheLastObject) {
  auto person = makeTrio();
  person->setValueForKeyPath("Cambridge", "home.city");
  EXPECT_EQ(person->home->city, "Cambridge");

  person->friendPerson = makeTrio();
  person->setValueForKeyPath(7, "friendPerson.age");
  EXPECT_EQ(person->friendPerson->age, 7);
  EXPECT_EQ(person->age, 36);

  // Nothing on the path: quietly nothing.
  person->friendPerson->friendPerson = nullptr;
  person->setValueForKeyPath("Oxford", "friendPerson.friendPerson.home.city");
  EXPECT_EQ(person->home->city, "Cambridge");
  EXPECT_NE(raised([&] { person->setValueForKeyPath(1, "home.zip"); }).find("setValue:forUndefinedKey:"),
            std::string::npos);
}

TEST(PXKeyValueCoding, LookupAnswersFoundAbsentOrUndefinedWithoutRaising) {
  auto person = makeTrio();
  auto employee = PXMake<KVCEmployee>();
  auto router = PXMake<KVCRouter>();
  const PXString personAddress = PXFormat("%p", person.get());
  const PXObject* const P = person.get();
  const PXObject* const E = employee.get();
  const PXObject* const R = router.get();
  constexpr PXKeyLookup Found = PXKeyLookup::Found, Absent = PXKeyLookup::Absent,
                        Undefined = PXKeyLookup::UndefinedKey;
  struct Row {
    const char* what;
    const PXObject* object;
    const char* path;
    bool asPath;  // lookupValueForKeyPath, else lookupValueForKey
    PXKeyLookup answer;
    PXValue value;
    const char* undefinedKey;  // and the reason contains "for the key <it>."
  } rows[] = {
      {"declared property", P, "name", false, Found, "Ada", nullptr},
      {"nested path", P, "home.facts.river", true, Found, "Thames", nullptr},
      {"absent in a dictionary", P, "home.facts.mountain", true, Absent, {}, nullptr},
      {"absent property", P, "friendPerson", false, Absent, {}, nullptr},
      {"absent step ends the path", P, "friendPerson.name", true, Absent, {}, nullptr},
      {"undefined key", P, "shoeSize", false, Undefined, {}, "shoeSize"},
      {"undefined in the middle", P, "home.street.number", true, Undefined, {}, "street"},
      {"key of a plain value", P, "name.length", true, Undefined, {}, "length"},
      {"valueForUndefinedKey override", E, "salary", true, Found, "fallback:salary", nullptr},
      {"valueForKeyPath override", R, "fact.os", true, Found, "os", nullptr},
      {"override answers absent", R, "fact.none", true, Absent, {}, nullptr},
      {"valueForKey override", R, "fixed", false, Found, 7, nullptr},
      {"override, then a dictionary", R, "nested.inner", true, Found, "deep", nullptr},
      {"override falls back and misses", R, "unknown.x", true, Undefined, {}, "unknown"},
      {"override raises by itself", R, "raising", false, Undefined, {}, "raising"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    PXValue value = "stale";
    PXUndefinedKey undefined;
    const PXKeyLookup answer = row.asPath ? row.object->lookupValueForKeyPath(row.path, &value, &undefined)
                                          : row.object->lookupValueForKey(row.path, &value, &undefined);
    EXPECT_EQ(answer, row.answer);
    EXPECT_TRUE(value.isEqual(row.value)) << value.description().str();
    if (row.undefinedKey) {
      EXPECT_EQ(undefined.key, row.undefinedKey);
      if (row.object != router.get() || std::string_view(row.path) != "raising") {
        EXPECT_NE(undefined.reason.view().find(std::string("for the key ") + row.undefinedKey + "."),
                  std::string::npos)
            << undefined.reason.str();
      }
    }
  }
  // The reason is the one the raising lookup gives, and raise() raises it.
  PXUndefinedKey undefined;
  PXValue value;
  ASSERT_EQ(person->lookupValueForKey("shoeSize", &value, &undefined), PXKeyLookup::UndefinedKey);
  const std::string expected = raised([&] { (void)person->valueForKey("shoeSize"); });
  EXPECT_EQ(raised([&] { undefined.raise(); }), expected);
  EXPECT_NE(expected.find(personAddress.str()), std::string::npos);
  // The override of valueForKeyPath is asked once for the whole path.
  router->pathCalls = 0;
  EXPECT_EQ(router->lookupValueForKeyPath("fact.a.b", &value), PXKeyLookup::Found);
  EXPECT_EQ(router->pathCalls, 1);
  EXPECT_EQ(value.description().str(), "a.b");
  // Other exceptions pass through, and the raising lookups raise again afterwards.
  EXPECT_EQ(raised([&] { (void)router->lookupValueForKey("invalid", &value); }),
            "NSInvalidArgumentException | not a key problem");
  EXPECT_NE(raised([&] { (void)person->valueForKey("shoeSize"); }), "no exception");
  EXPECT_NE(raised([&] { (void)person->valueForKeyPath("name.length"); }), "no exception");
}

}  // namespace

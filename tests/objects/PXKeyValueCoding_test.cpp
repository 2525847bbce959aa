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

TEST(PXKeyValueCoding, ReadsEveryKindOfDeclaredProperty) {
  auto person = makeTrio();
  person->active = true;
  person->visits = -7;
  person->bytes = 18446744073709551615ull;
  person->height = 1.65;
  struct Row {
    const char* key;
    PXValue expected;
  } rows[] = {
      {"active", true},
      {"age", 36},
      {"visits", -7},
      {"bytes", 18446744073709551615ull},
      {"height", 1.65},
      {"name", "Ada"},
      {"greeting", "hello Ada"},  // computed, read-only
      {"doubled", 72},            // computed with a setter
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.key);
    PXValue value = person->valueForKey(row.key);
    EXPECT_TRUE(value.isEqual(row.expected)) << value.description().str();
  }
  EXPECT_EQ(person->valueForKey("home").objectPointer(), person->home.get());
  EXPECT_TRUE(person->valueForKey("friendPerson").isAbsent());
}

TEST(PXKeyValueCoding, WritesConvertingToThePropertyType) {
  auto person = PXMake<KVCPerson>();
  person->setValueForKey("41", "age");  // strings are read as numbers
  person->setValueForKey(2.9, "visits");
  person->setValueForKey(1, "active");
  person->setValueForKey("Grace", "name");
  auto place = PXMake<KVCPlace>();
  person->setValueForKey(place, "home");
  person->setValueForKey(90, "doubled");  // through the computed setter
  EXPECT_EQ(person->age, 45);
  EXPECT_EQ(person->visits, 2);
  EXPECT_TRUE(person->active);
  EXPECT_EQ(person->name, "Grace");
  EXPECT_EQ(person->home.get(), place.get());

  person->setValueForKey(PXValue(), "home");  // absent clears an object property
  EXPECT_FALSE(person->home);
}

TEST(PXKeyValueCoding, CopyPropertyStoresACopy) {
  auto person = PXMake<KVCPerson>();
  auto tags = PXMutableArray::array();
  tags->addObject("a");
  person->setValueForKey(tags, "tags");
  tags->addObject("b");
  ASSERT_TRUE(person->tags);
  EXPECT_NE(static_cast<PXObject*>(person->tags.get()), static_cast<PXObject*>(tags.get()));
  EXPECT_EQ(person->tags->count(), 1u);
}

TEST(PXKeyValueCoding, SubclassSeesInheritedPropertiesAndItsOwn) {
  auto employee = PXMake<KVCEmployee>();
  employee->setValueForKey("Initech", "employer");
  employee->setValueForKey("Peter", "name");
  EXPECT_EQ(employee->valueForKey("employer").description().str(), "Initech");
  EXPECT_EQ(employee->valueForKey("name").description().str(), "Peter");
  // The override answers unknown keys, also in the middle of a path walk.
  EXPECT_EQ(employee->valueForKey("salary").description().str(), "fallback:salary");
  EXPECT_EQ(employee->valueForKeyPath("salary").description().str(), "fallback:salary");
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
  EXPECT_STREQ(kPXUndefinedKeyException, "NSUnknownKeyException");
  EXPECT_STREQ(kPXInternalInconsistencyException, "NSInternalInconsistencyException");
}

TEST(PXKeyValueCoding, KeyPathsWalkObjectsAndDictionaries) {
  auto person = makeTrio();
  person->friendPerson = makeTrio();
  person->friendPerson->home->city = "Paris";
  struct Row {
    const char* path;
    PXValue expected;
  } rows[] = {
      {"name", "Ada"},
      {"home.city", "London"},
      {"home.facts.river", "Thames"},
      {"friendPerson.home.city", "Paris"},
      {"friendPerson.friendPerson.home.city", PXValue()},  // absent in the middle ends the walk
      {"home.facts.mountain", PXValue()},                  // dictionaries answer unknown keys with absent
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.path);
    PXValue value = person->valueForKeyPath(row.path);
    EXPECT_TRUE(value.isEqual(row.expected)) << value.description().str();
  }
  // Unknown keys raise wherever they are on the path.
  EXPECT_NE(raised([&] { (void)person->valueForKeyPath("home.street.number"); }).find("for the key street."),
            std::string::npos);
  // A plain value has no keys.
  std::string reason = raised([&] { (void)person->valueForKeyPath("name.length"); });
  EXPECT_EQ(reason.rfind("NSUnknownKeyException | [<NSString 0x", 0), 0u) << reason;
  EXPECT_NE(reason.find("for the key length."), std::string::npos);
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
  struct Row {
    const char* what;
    const PXObject* object;
    const char* path;
    bool asPath;  // lookupValueForKeyPath, else lookupValueForKey
    PXKeyLookup answer;
    PXValue value;
    const char* undefinedKey;  // and the reason contains "for the key <it>."
  } rows[] = {
      {"declared property", person.get(), "name", false, PXKeyLookup::Found, "Ada", nullptr},
      {"nested path", person.get(), "home.facts.river", true, PXKeyLookup::Found, "Thames", nullptr},
      {"absent in a dictionary", person.get(), "home.facts.mountain", true, PXKeyLookup::Absent, {}, nullptr},
      {"absent property", person.get(), "friendPerson", false, PXKeyLookup::Absent, {}, nullptr},
      {"absent step ends the path",
       person.get(),
       "friendPerson.name",
       true,
       PXKeyLookup::Absent,
       {},
       nullptr},
      {"undefined key", person.get(), "shoeSize", false, PXKeyLookup::UndefinedKey, {}, "shoeSize"},
      {"undefined in the middle",
       person.get(),
       "home.street.number",
       true,
       PXKeyLookup::UndefinedKey,
       {},
       "street"},
      {"key of a plain value", person.get(), "name.length", true, PXKeyLookup::UndefinedKey, {}, "length"},
      {"valueForUndefinedKey override", employee.get(), "salary", true, PXKeyLookup::Found, "fallback:salary",
       nullptr},
      {"valueForKeyPath override", router.get(), "fact.os", true, PXKeyLookup::Found, "os", nullptr},
      {"override answers absent", router.get(), "fact.none", true, PXKeyLookup::Absent, {}, nullptr},
      {"valueForKey override", router.get(), "fixed", false, PXKeyLookup::Found, 7, nullptr},
      {"override, then a dictionary", router.get(), "nested.inner", true, PXKeyLookup::Found, "deep",
       nullptr},
      {"override falls back and misses",
       router.get(),
       "unknown.x",
       true,
       PXKeyLookup::UndefinedKey,
       {},
       "unknown"},
      {"override raises by itself", router.get(), "raising", false, PXKeyLookup::UndefinedKey, {}, "raising"},
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

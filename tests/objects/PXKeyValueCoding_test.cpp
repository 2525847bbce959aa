#include <gtest/gtest.h>
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
  int32_t age = 0;
  PXString name;
  PXRef<KVCPlace> home;
  PXRef<KVCPerson> friendPerson;
  PXString greeting() const { return PXFormat("hello %@", name); }
};

// A subclass that answers unknown keys itself.
class KVCEmployee : public KVCPerson {
  PX_DECLARE_CLASS(KVCEmployee)
 public:
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
  c.property("age", &KVCPerson::age);
  c.property("name", &KVCPerson::name);
  c.property("home", &KVCPerson::home);
  c.property("friendPerson", &KVCPerson::friendPerson);
  c.computed("greeting", &KVCPerson::greeting);
})
PX_DEFINE_CLASS(KVCEmployee, KVCPerson, nullptr)

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

TEST(PXKeyValueCoding, UndefinedKeysRaiseWithTheKitsMessage) {
  auto person = makeTrio();
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
  // A read-only property, a key under a plain value, a key of a missing property.
  for (const char* path : {"greeting", "name.length", "home.zip"}) {
    EXPECT_NE(raised([&] { person->setValueForKeyPath(1, path); }).find("setValue:forUndefinedKey:"),
              std::string::npos)
        << path;
  }
  EXPECT_NE(raised([&] { (void)person->valueForKeyPath("name.length"); }), "no exception");
  try {
    (void)person->valueForKey("shoeSize");
  } catch (const PXException& e) {
    ASSERT_TRUE(e.userInfo());
    EXPECT_EQ(e.userInfo()->objectForKey("NSUnknownUserInfoKey").description().str(), "shoeSize");
  }
}

TEST(PXKeyValueCoding, LookupAnswersFoundAbsentOrUndefinedWithoutRaising) {
  auto person = makeTrio();
  auto employee = PXMake<KVCEmployee>();
  auto router = PXMake<KVCRouter>();
  const PXObject* const P = person.get();
  const PXObject* const E = employee.get();
  const PXObject* const R = router.get();
  constexpr PXKeyLookup Found = PXKeyLookup::Found, Absent = PXKeyLookup::Absent,
                        Undefined = PXKeyLookup::UndefinedKey;
  struct Row {
    const PXObject* object;
    const char* path;
    bool asPath;  // lookupValueForKeyPath, else lookupValueForKey
    PXKeyLookup answer;
    PXValue value;
    const char* undefinedKey;  // and the reason contains "for the key <it>."
  } rows[] = {
      {P, "name", false, Found, "Ada", nullptr},
      {P, "home.facts.river", true, Found, "Thames", nullptr},
      {P, "home.facts.mountain", true, Absent, {}, nullptr},
      {P, "friendPerson", false, Absent, {}, nullptr},
      {P, "friendPerson.name", true, Absent, {}, nullptr},
      {P, "shoeSize", false, Undefined, {}, "shoeSize"},
      {P, "home.street.number", true, Undefined, {}, "street"},
      {P, "name.length", true, Undefined, {}, "length"},       // a key of a plain value
      {E, "salary", true, Found, "fallback:salary", nullptr},  // valueForUndefinedKey override
      {R, "fact.os", true, Found, "os", nullptr},              // valueForKeyPath override
      {R, "fact.none", true, Absent, {}, nullptr},
      {R, "fixed", false, Found, 7, nullptr},  // valueForKey override
      {R, "nested.inner", true, Found, "deep", nullptr},
      {R, "unknown.x", true, Undefined, {}, "unknown"},
      {R, "raising", false, Undefined, {}, "raising"},  // the override raises by itself
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.path);
    PXValue value = "stale";
    PXUndefinedKey undefined;
    const PXKeyLookup answer = row.asPath ? row.object->lookupValueForKeyPath(row.path, &value, &undefined)
                                          : row.object->lookupValueForKey(row.path, &value, &undefined);
    EXPECT_EQ(answer, row.answer);
    EXPECT_TRUE(value.isEqual(row.value)) << value.description().str();
    if (row.undefinedKey) {
      EXPECT_EQ(undefined.key, row.undefinedKey);
      if (row.object != R || std::string_view(row.path) != "raising") {
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
  EXPECT_EQ(raised([&] { undefined.raise(); }), raised([&] { (void)person->valueForKey("shoeSize"); }));
  // The override of valueForKeyPath is asked once for the whole path.
  router->pathCalls = 0;
  EXPECT_EQ(router->lookupValueForKeyPath("fact.a.b", &value), PXKeyLookup::Found);
  EXPECT_EQ(router->pathCalls, 1);
  // Other exceptions pass through.
  EXPECT_EQ(raised([&] { (void)router->lookupValueForKey("invalid", &value); }),
            "NSInvalidArgumentException | not a key problem");
}

}  // namespace

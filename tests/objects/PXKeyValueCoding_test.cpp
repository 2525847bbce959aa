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

}  // namespace

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

}  // namespace

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

}  // namespace

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

}  // namespace

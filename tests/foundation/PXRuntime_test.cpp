#include <gtest/gtest.h>
#include <pxkit/foundation/PXRuntime.h>
#include <pxkit/objects/PXArray.h>

#include <algorithm>

namespace {

class RTAnimal : public PXObject {
  PX_DECLARE_CLASS(RTAnimal)
};
class RTDog : public RTAnimal {
  PX_DECLARE_CLASS(RTDog)
};
class RTCat : public RTAnimal {
  PX_DECLARE_CLASS(RTCat)
};
class RTPuppy : public RTDog {
  PX_DECLARE_CLASS(RTPuppy)
};

}  // namespace

PX_DEFINE_CLASS(RTAnimal, PXObject, nullptr)
PX_DEFINE_CLASS(RTDog, RTAnimal, nullptr)
PX_DEFINE_CLASS(RTCat, RTAnimal, nullptr)
PX_DEFINE_CLASS(RTPuppy, RTDog, nullptr)

namespace {

const char kFirstKey = 0;
const char kSecondKey = 0;

TEST(PXRuntime, RemoveAssociatedObjectsReleasesEveryValue) {
  auto host = PXMake<RTAnimal>();
  auto first = PXMake<RTDog>();
  auto second = PXMake<RTDog>();
  PXWeakRef<RTDog> firstWeak = first, secondWeak = second;
  PXRuntime::setRetainedAssociatedObject(*host, first, &kFirstKey);
  PXRuntime::setCopiedAssociatedObject(*host, second, &kSecondKey);  // plain objects copy as themselves
  first = nullptr;
  second = nullptr;
  ASSERT_FALSE(firstWeak.expired());
  ASSERT_FALSE(secondWeak.expired());
  PXRuntime::removeAssociatedObjects(*host);
  EXPECT_TRUE(firstWeak.expired());
  EXPECT_TRUE(secondWeak.expired());
  EXPECT_TRUE(PXRuntime::getAssociatedObjectForKey(*host, &kFirstKey).isAbsent());
}

std::vector<std::string> names(const std::vector<const PXClass*>& classes) {
  std::vector<std::string> out;
  for (const PXClass* cls : classes) out.push_back(cls->name());
  return out;
}

TEST(PXRuntime, ArrayOfSubClassesListsDescendantsOrNone) {
  auto animals = PXRuntime::arrayOfSubClasses(RTAnimal::classObject());
  ASSERT_TRUE(animals.has_value());
  EXPECT_EQ(names(*animals), (std::vector<std::string>{"RTDog", "RTCat", "RTPuppy"}));

  auto dogs = PXRuntime::arrayOfSubClasses(RTDog::classObject());
  ASSERT_TRUE(dogs.has_value());
  EXPECT_EQ(names(*dogs), (std::vector<std::string>{"RTPuppy"}));

  // Leaves have none at all, not an empty list.
  EXPECT_FALSE(PXRuntime::arrayOfSubClasses(RTCat::classObject()).has_value());
  EXPECT_FALSE(PXRuntime::arrayOfSubClasses(RTPuppy::classObject()).has_value());

  // The root's list holds every other class, never the root itself.
  auto all = PXRuntime::arrayOfSubClasses(PXObject::classObject());
  ASSERT_TRUE(all.has_value());
  auto list = names(*all);
  EXPECT_EQ(std::count(list.begin(), list.end(), "PXObject"), 0);
  EXPECT_EQ(std::count(list.begin(), list.end(), "RTPuppy"), 1);
  EXPECT_EQ(std::count(list.begin(), list.end(), "PXMutableArray"), 1);
}

}  // namespace

#include <gtest/gtest.h>
#include <pxkit/foundation/PXAssociatedTargetBlockTrampoline.h>
#include <pxkit/foundation/PXPropertyTools.h>
#include <pxkit/foundation/PXRuntime.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXFormat.h>

#include <memory>
#include <string>
#include <vector>

namespace {

class PTBase : public PXObject {
  PX_DECLARE_CLASS(PTBase)
 public:
  PXString baseName;          // copy
  PXRef<PXObject> baseChild;  // retain
  int32_t baseCount = 0;      // assign
};

class PTDerived : public PTBase {
  PX_DECLARE_CLASS(PTDerived)
 public:
  PXString title;                // copy
  PXRef<PXObject> child;         // retain
  PXRef<PXObject> delegateLike;  // assign: not owned by the property
  int32_t count = 0;             // assign
  PXRef<PXObject> computedChild() const { return computedHeld; }
  PXRef<PXObject> computedHeld;  // behind a retain property without a backing field
};

}  // namespace

PX_DEFINE_CLASS(PTBase, PXObject, [](PXClassBuilder<PTBase>& c) {
  c.property("baseName", &PTBase::baseName);
  c.property("baseChild", &PTBase::baseChild);
  c.property("baseCount", &PTBase::baseCount);
})
PX_DEFINE_CLASS(PTDerived, PTBase, [](PXClassBuilder<PTDerived>& c) {
  c.property("title", &PTDerived::title);
  c.property("child", &PTDerived::child);
  c.property("delegateLike", &PTDerived::delegateLike, PXPropertyOwnership::Assign);
  c.property("count", &PTDerived::count);
  c.computed("computedChild", &PTDerived::computedChild, nullptr, PXPropertyOwnership::Retain);
})

namespace {

TEST(PXRuntime, AssociatedObjectsFollowTheirPolicyAndRemovalReleasesThemAll) {
  static const char kRetained = 0, kCopied = 0, kAssigned = 0;
  auto host = PXMake<PTBase>();
  auto retained = PXMake<PXObject>(), copied = PXMake<PXObject>(), assigned = PXMake<PXObject>();
  PXWeakRef<PXObject> retainedWeak = retained, copiedWeak = copied, assignedWeak = assigned;
  PXRuntime::setRetainedAssociatedObject(*host, retained, &kRetained);
  PXRuntime::setCopiedAssociatedObject(*host, copied, &kCopied);  // plain objects copy as themselves
  PXRuntime::setAssignedAssociatedObject(*host, assigned, &kAssigned);
  retained = copied = assigned = nullptr;
  EXPECT_TRUE(assignedWeak.expired() && !retainedWeak.expired() && !copiedWeak.expired())
      << "assigned: unowned";
  PXRuntime::removeAssociatedObjects(*host);
  EXPECT_TRUE(retainedWeak.expired() && copiedWeak.expired());
}

TEST(PXRuntime, ArrayOfSubClassesListsDescendantsOrNone) {
  auto names = [](const PXClass& cls) {
    std::string out;
    const auto subclasses = PXRuntime::arrayOfSubClasses(cls);
    for (const PXClass* sub : subclasses.value()) out += " " + sub->name() + " ";
    return out;
  };
  EXPECT_EQ(names(PTBase::classObject()), " PTDerived ");
  EXPECT_FALSE(PXRuntime::arrayOfSubClasses(PTDerived::classObject())) << "none at all, not an empty list";
  const std::string all = names(PXObject::classObject());
  EXPECT_TRUE(all.find(" PTDerived ") != all.npos && all.find(" PXObject ") == all.npos) << "not the root";
}

TEST(PXPropertyTools, EnumerationSelectsRecursesAndStopsPerClass) {
  struct Row {
    PXRef<PXArray> selection;
    bool recursive;
    const char* stopAt;    // the callback sets the stop flag at this property
    const char* expected;  // the names seen, in order
  } rows[] = {
      {{}, true, nullptr, "title child delegateLike count computedChild baseName baseChild baseCount"},
      {PXArray::arrayWithObjects({"count", "baseName", "nothing"}), false, nullptr, "count"},
      {{}, true, "child", "title child baseName baseChild baseCount"},  // the superclass is still walked
  };
  auto object = PXMake<PTDerived>();
  for (const Row& row : rows) {
    std::string instanceSeen, classSeen;
    auto see = [&](std::string& seen, std::string_view name, bool* stop) {
      seen += (seen.empty() ? "" : " ") + std::string(name);
      if (row.stopAt && name == row.stopAt) *stop = true;
    };
    PXPropertyTools::enumerateProperties(
        *object, row.selection, row.recursive,
        [&](PXObject& self, std::string_view name, const PXPropertyDescriptor& property, bool* stop) {
          EXPECT_TRUE(&self == object.get() && property.name == name);
          see(instanceSeen, name, stop);
        });
    PXPropertyTools::enumerateProperties(
        PTDerived::classObject(), row.selection, row.recursive,
        [&](const PXClass& cls, std::string_view name, const PXPropertyDescriptor&, bool* stop) {
          EXPECT_EQ(&cls, &PTDerived::classObject());
          see(classSeen, name, stop);
        });
    EXPECT_EQ(instanceSeen, row.expected);
    EXPECT_EQ(classSeen, row.expected);
  }
  PXPropertyTools::enumerateProperties(*object, {}, true, nullptr);  // no callback: nothing to do
  PXPropertyTools::enumerateProperties(PTDerived::classObject(), {}, true, nullptr);
}

TEST(PXPropertyTools, ReleaseAndNilClearsOnlyBackedCopyAndRetainProperties) {
  auto object = PXMake<PTDerived>();
  auto child = PXMake<PXObject>(), baseChild = PXMake<PXObject>(), delegate = PXMake<PXObject>();
  PXWeakRef<PXObject> childWeak = child, baseChildWeak = baseChild;
  object->title = "title";
  object->child = child;
  object->delegateLike = object->computedHeld = delegate;
  object->baseName = "base";
  object->baseChild = baseChild;
  child = baseChild = nullptr;
  PXPropertyTools::releaseAndNilAllPropertiesRecursive(*object, /*recursive=*/false);
  EXPECT_TRUE(object->title.isAbsent());
  EXPECT_TRUE(childWeak.expired()) << "the released value is gone";
  EXPECT_EQ(object->delegateLike.get(), delegate.get());  // assign
  EXPECT_EQ(object->computedHeld.get(), delegate.get());  // no backing field
  EXPECT_EQ(object->baseName, "base");                    // superclass untouched without recursion
  EXPECT_FALSE(baseChildWeak.expired());
  PXPropertyTools::releaseAndNilAllPropertiesRecursive(*object, /*recursive=*/true);
  EXPECT_TRUE(object->baseName.isAbsent());
  EXPECT_TRUE(baseChildWeak.expired());
}

using Trampoline = PXAssociatedTargetBlockTrampoline;

TEST(PXAssociatedTargetBlockTrampoline, DestructionCallbacksRunAtDestructionUnlessRemoved) {
  std::vector<std::string> ran;
  auto object = PXMake<PXObject>();
  const void* address = object.get();
  auto callbacks = [&] {
    return PXRuntime::getAssociatedObjectForKey(*object, kPXAssociatedTargetBlockTrampolineDict)
        .dictionaryValue();
  };
  EXPECT_TRUE(Trampoline::addDeallocBlock(*object, nullptr).isAbsent()) << "no callback, no token";
  Trampoline::removeDeallocBlockWithToken(*object, "0x1234");  // no callbacks at all: ignored
  // The object's dictionary comes with the first callback and goes with the last.
  PXString only = Trampoline::addDeallocBlock(*object, [&](PXObject*) { ran.push_back("only"); });
  Trampoline::removeDeallocBlockWithToken(*object, only);
  EXPECT_FALSE(callbacks());
  PXString first = Trampoline::addDeallocBlock(*object, [&](PXObject* gone) {
    ran.push_back(PXFormat("first %p", static_cast<const void*>(gone)).str());
  });
  PXString removed = Trampoline::addDeallocBlock(*object, [&](PXObject*) { ran.push_back("removed"); });
  Trampoline::addDeallocBlock(*object, [&](PXObject*) { ran.push_back("third"); });
  // The token is the trampoline's address, and keys the object's dictionary.
  ASSERT_EQ(callbacks()->count(), 3u);
  EXPECT_EQ(PXFormat("%p", static_cast<const void*>(callbacks()->objectForKey(first).objectPointer())),
            first);
  for (const PXString& token : {removed, removed, PXString("0x1234"), PXString()})
    Trampoline::removeDeallocBlockWithToken(*object, token);  // once there, then unknown or absent: ignored
  EXPECT_EQ(callbacks()->count(), 2u);
  EXPECT_TRUE(ran.empty()) << "removal must not run the callback";
  object = nullptr;
  EXPECT_EQ(ran, (std::vector<std::string>{PXFormat("first %p", address).str(), "third"}));
}

}  // namespace

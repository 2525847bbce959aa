// Associated objects, subclass lookup and declared properties, on one class and its subclass.
#include <gtest/gtest.h>
#include <pxkit/foundation/PXPropertyTools.h>
#include <pxkit/foundation/PXRuntime.h>

#include <algorithm>
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

const char kRetained = 0, kCopied = 0, kAssigned = 0;

TEST(PXRuntime, AssociatedObjectsFollowTheirPolicyAndRemovalReleasesThemAll) {
  auto host = PXMake<PTBase>();
  auto retained = PXMake<PXObject>(), copied = PXMake<PXObject>(), assigned = PXMake<PXObject>();
  PXWeakRef<PXObject> retainedWeak = retained, copiedWeak = copied, assignedWeak = assigned;
  PXRuntime::setRetainedAssociatedObject(*host, retained, &kRetained);
  PXRuntime::setCopiedAssociatedObject(*host, copied, &kCopied);  // plain objects copy as themselves
  PXRuntime::setAssignedAssociatedObject(*host, assigned, &kAssigned);
  EXPECT_EQ(PXRuntime::getAssociatedObjectForKey(*host, &kAssigned).objectPointer(), assigned.get());
  retained = copied = assigned = nullptr;
  EXPECT_TRUE(assignedWeak.expired()) << "an assigned value is not kept alive";
  ASSERT_FALSE(retainedWeak.expired() || copiedWeak.expired());
  PXRuntime::removeAssociatedObjects(*host);
  EXPECT_TRUE(retainedWeak.expired() && copiedWeak.expired());
  EXPECT_TRUE(PXRuntime::getAssociatedObjectForKey(*host, &kRetained).isAbsent());
}

TEST(PXRuntime, ArrayOfSubClassesListsDescendantsOrNone) {
  auto names = [](const PXClass& cls) {
    std::vector<std::string> out;
    const auto subclasses = PXRuntime::arrayOfSubClasses(cls);
    for (const PXClass* sub : subclasses.value()) out.push_back(sub->name());
    return out;
  };
  EXPECT_EQ(names(PTBase::classObject()), std::vector<std::string>{"PTDerived"});
  EXPECT_FALSE(PXRuntime::arrayOfSubClasses(PTDerived::classObject())) << "none at all, not an empty list";
  // The root's list holds every other class, grandchildren too, never the root itself.
  const std::vector<std::string> all = names(PXObject::classObject());
  EXPECT_EQ(std::count(all.begin(), all.end(), "PXObject"), 0);
  EXPECT_EQ(std::count(all.begin(), all.end(), "PTDerived"), 1);
}

TEST(PXPropertyTools, EnumerationSelectsRecursesAndStopsPerClass) {
  struct Row {
    PXRef<PXArray> selection;
    bool recursive;
    const char* stopAt;    // the callback sets the stop flag at this property
    const char* expected;  // the names seen, in order
  } rows[] = {
      {{}, false, nullptr, "title child delegateLike count computedChild"},
      {{}, true, nullptr, "title child delegateLike count computedChild baseName baseChild baseCount"},
      {PXArray::arrayWithObjects({"count", "baseName", "nothing"}), true, nullptr, "count baseName"},
      {{}, true, "child", "title child baseName baseChild baseCount"},  // the superclass is still walked
      {{}, true, "baseName", "title child delegateLike count computedChild baseName"},
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
  auto child = PXMake<PXObject>(), baseChild = PXMake<PXObject>();
  auto delegate = PXMake<PXObject>(), computed = PXMake<PXObject>();
  PXWeakRef<PXObject> childWeak = child, baseChildWeak = baseChild;
  object->title = "title";
  object->child = child;
  object->delegateLike = delegate;
  object->computedHeld = computed;
  object->baseName = "base";
  object->baseChild = baseChild;
  child = baseChild = nullptr;

  PXPropertyTools::releaseAndNilAllPropertiesRecursive(*object, /*recursive=*/false);
  EXPECT_TRUE(object->title.isAbsent());
  EXPECT_TRUE(childWeak.expired()) << "the released value is gone";
  EXPECT_EQ(object->delegateLike.get(), delegate.get());  // assign
  EXPECT_EQ(object->computedHeld.get(), computed.get());  // no backing field
  EXPECT_EQ(object->baseName, "base");                    // superclass untouched without recursion
  EXPECT_FALSE(baseChildWeak.expired());

  PXPropertyTools::releaseAndNilAllPropertiesRecursive(*object, /*recursive=*/true);
  EXPECT_TRUE(object->baseName.isAbsent());
  EXPECT_TRUE(baseChildWeak.expired());
}

}  // namespace

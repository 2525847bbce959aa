#include <gtest/gtest.h>
#include <pxkit/foundation/PXPropertyTools.h>

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

TEST(PXPropertyTools, EnumerationSelectsRecursesAndStopsPerClass) {
  const auto selection = [](std::initializer_list<PXValue> names) {
    return PXArray::arrayWithObjects(names);
  };
  struct Row {
    PXRef<PXArray> selection;
    bool recursive;
    const char* stopAt;    // the callback sets the stop flag at this property
    const char* expected;  // the names seen, in order
  } rows[] = {
      {{}, false, nullptr, "title child delegateLike count computedChild"},
      {{}, true, nullptr, "title child delegateLike count computedChild baseName baseChild baseCount"},
      {selection({"count", "baseName", "nothing"}), true, nullptr, "count baseName"},
      {selection({"count", "baseName"}), false, nullptr, "count"},
      {{}, true, "child", "title child baseName baseChild baseCount"},  // the superclass is still walked
      {{}, false, "child", "title child"},
      {{}, true, "baseName", "title child delegateLike count computedChild baseName"},
  };
  auto object = PXMake<PTDerived>();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.expected);
    std::string instanceSeen;
    PXPropertyTools::enumerateProperties(
        *object, row.selection, row.recursive,
        [&](PXObject& self, std::string_view name, const PXPropertyDescriptor& property, bool* stop) {
          EXPECT_EQ(&self, object.get());
          EXPECT_EQ(property.name, name);
          instanceSeen += (instanceSeen.empty() ? "" : " ") + std::string(name);
          if (row.stopAt && name == row.stopAt) *stop = true;
        });
    EXPECT_EQ(instanceSeen, row.expected);

    std::string classSeen;
    PXPropertyTools::enumerateProperties(
        PTDerived::classObject(), row.selection, row.recursive,
        [&](const PXClass& cls, std::string_view name, const PXPropertyDescriptor&, bool* stop) {
          EXPECT_EQ(&cls, &PTDerived::classObject());
          classSeen += (classSeen.empty() ? "" : " ") + std::string(name);
          if (row.stopAt && name == row.stopAt) *stop = true;
        });
    EXPECT_EQ(classSeen, row.expected);
  }
}

TEST(PXPropertyTools, ReleaseAndNilClearsOnlyBackedCopyAndRetainProperties) {
  auto object = PXMake<PTDerived>();
  auto child = PXMake<PXObject>();
  auto baseChild = PXMake<PXObject>();
  auto delegate = PXMake<PXObject>();
  auto computed = PXMake<PXObject>();
  PXWeakRef<PXObject> childWeak = child, baseChildWeak = baseChild;
  object->title = "title";
  object->child = child;
  object->delegateLike = delegate;
  object->count = 3;
  object->computedHeld = computed;
  object->baseName = "base";
  object->baseChild = baseChild;
  object->baseCount = 4;
  child = nullptr;
  baseChild = nullptr;

  PXPropertyTools::releaseAndNilAllPropertiesRecursive(*object, /*recursive=*/false);
  EXPECT_TRUE(object->title.isAbsent());
  EXPECT_FALSE(object->child);
  EXPECT_TRUE(childWeak.expired()) << "the released value is gone";
  EXPECT_EQ(object->delegateLike.get(), delegate.get());  // assign
  EXPECT_EQ(object->count, 3);                            // assign
  EXPECT_EQ(object->computedHeld.get(), computed.get());  // no backing field
  EXPECT_EQ(object->baseName, "base");                    // superclass untouched without recursion
  EXPECT_FALSE(baseChildWeak.expired());

  PXPropertyTools::releaseAndNilAllPropertiesRecursive(*object, /*recursive=*/true);
  EXPECT_TRUE(object->baseName.isAbsent());
  EXPECT_TRUE(baseChildWeak.expired());
  EXPECT_EQ(object->baseCount, 4);
  EXPECT_EQ(object->delegateLike.get(), delegate.get());
}

}  // namespace

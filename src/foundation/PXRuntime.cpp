// Associated objects and subclass lookup.
#include <pxkit/foundation/PXRuntime.h>

void PXRuntime::setRetainedAssociatedObject(PXObject& object, const PXValue& value, const void* key) {
  object.setAssociatedObject(key, value, PXAssociationPolicy::Retain);
}

void PXRuntime::setAssignedAssociatedObject(PXObject& object, const PXValue& value, const void* key) {
  object.setAssociatedObject(key, value, PXAssociationPolicy::Assign);
}

void PXRuntime::setCopiedAssociatedObject(PXObject& object, const PXValue& value, const void* key) {
  object.setAssociatedObject(key, value, PXAssociationPolicy::Copy);
}

PXValue PXRuntime::getAssociatedObjectForKey(const PXObject& object, const void* key) {
  return object.associatedObject(key);
}

void PXRuntime::removeAssociatedObjects(PXObject& object) {
  object.removeAssociatedObjects();
}

std::optional<std::vector<const PXClass*>> PXRuntime::arrayOfSubClasses(const PXClass& cls) {
  std::vector<const PXClass*> subclasses;
  for (const PXClass* candidate : PXClass::allClasses()) {
    if (candidate != &cls && candidate->isSubclassOf(cls)) subclasses.push_back(candidate);
  }
  if (subclasses.empty()) return std::nullopt;
  return subclasses;
}

#include <pxkit/objects/PXClass.h>
#include <pxkit/objects/PXObject.h>

#include <memory>
#include <mutex>
#include <unordered_map>

namespace {

// Classes are registered at load time and live as long as the process; the
// registry is never freed so that late static destructors may still ask it.
struct Registry {
  std::mutex mutex;
  std::vector<const PXClass*> ordered;
  std::unordered_map<std::string_view, const PXClass*> byName;
};

Registry& registry() {
  static Registry* instance = new Registry;
  return *instance;
}

}  // namespace

std::string PXPropertyDescriptor::attributes() const {
  std::string text = "T" + typeCode;
  if (readOnly) text += ",R";
  if (ownership == PXPropertyOwnership::Copy) text += ",C";
  if (ownership == PXPropertyOwnership::Retain) text += ",&";
  if (!atomic) text += ",N";
  if (!backingField.empty()) text += ",V" + backingField;
  return text;
}

const PXClass& PXClass::registerClass(std::string name, const PXClass* superclass,
                                      std::vector<PXPropertyDescriptor> properties,
                                      std::function<PXRef<PXObject>()> factory) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  if (auto it = r.byName.find(name); it != r.byName.end()) return *it->second;
  auto* cls = new PXClass;
  cls->name_ = std::move(name);
  cls->superclass_ = superclass;
  cls->properties_ = std::move(properties);
  cls->factory_ = std::move(factory);
  r.ordered.push_back(cls);
  r.byName.emplace(cls->name_, cls);
  return *cls;
}

const PXPropertyDescriptor* PXClass::propertyNamed(std::string_view name) const {
  for (const PXClass* cls = this; cls; cls = cls->superclass_) {
    for (const PXPropertyDescriptor& property : cls->properties_) {
      if (property.name == name) return &property;
    }
  }
  return nullptr;
}

bool PXClass::isSubclassOf(const PXClass& other) const noexcept {
  for (const PXClass* cls = this; cls; cls = cls->superclass_) {
    if (cls == &other) return true;
  }
  return false;
}

PXRef<PXObject> PXClass::createInstance() const {
  return factory_ ? factory_() : PXRef<PXObject>();
}

const PXClass* PXClass::named(std::string_view name) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  auto it = r.byName.find(name);
  return it == r.byName.end() ? nullptr : it->second;
}

std::vector<const PXClass*> PXClass::allClasses() {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  return r.ordered;
}

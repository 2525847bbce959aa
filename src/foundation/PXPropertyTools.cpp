// Walking and releasing declared properties.
#include <pxkit/foundation/PXPropertyTools.h>

#include <string_view>

namespace {

bool selected(const PXRef<PXArray>& properties, std::string_view name) {
  return !properties || properties->containsObject(PXValue(name));
}

// Calls `visit` for each selected property, class by class. The stop flag is
// fresh for each class: it ends that class's list only.
template <class Visit>
void walk(const PXClass& start, const PXRef<PXArray>& properties, bool recursive, Visit&& visit) {
  for (const PXClass* cls = &start; cls; cls = recursive ? cls->superclass() : nullptr) {
    bool stop = false;
    for (const PXPropertyDescriptor& property : cls->properties()) {
      if (!selected(properties, property.name)) continue;
      visit(property, &stop);
      if (stop) break;
    }
  }
}

// Whether the attribute string marks the property copied ("C") or retained
// ("&"), and names a backing field ("V<name>").
bool ownsBackedValue(const std::string& attributes) {
  bool owns = false;
  bool backed = false;
  std::string_view rest = attributes;
  while (!rest.empty()) {
    size_t comma = rest.find(',');
    std::string_view attribute = rest.substr(0, comma);
    if (attribute == "C" || attribute == "&") owns = true;
    if (attribute.size() > 1 && attribute.front() == 'V') backed = true;
    if (comma == std::string_view::npos) break;
    rest.remove_prefix(comma + 1);
  }
  return owns && backed;
}

}  // namespace

void PXPropertyTools::enumerateProperties(const PXClass& cls, const PXRef<PXArray>& properties,
                                          bool recursive, const PXClassPropertyEnumerationBlock& block) {
  if (!block) return;
  walk(cls, properties, recursive,
       [&](const PXPropertyDescriptor& property, bool* stop) { block(cls, property.name, property, stop); });
}

void PXPropertyTools::enumerateProperties(PXObject& object, const PXRef<PXArray>& properties, bool recursive,
                                          const PXPropertyEnumerationBlock& block) {
  if (!block) return;
  walk(object.pxClass(), properties, recursive, [&](const PXPropertyDescriptor& property, bool* stop) {
    block(object, property.name, property, stop);
  });
}

void PXPropertyTools::releaseAndNilAllPropertiesRecursive(PXObject& object, bool recursive) {
  walk(object.pxClass(), /*properties=*/{}, recursive, [&](const PXPropertyDescriptor& property, bool*) {
    if (property.clear && ownsBackedValue(property.attributes())) property.clear(object);
  });
}

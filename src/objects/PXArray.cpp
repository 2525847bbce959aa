#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXException.h>

#include <algorithm>
#include <iterator>
#include <memory>

#include "objects/internal/PackedContainer.h"
#include "objects/internal/ValueText.h"

PX_DEFINE_CLASS(PXArray, PXObject, [](PXClassBuilder<PXArray>& c) { c.factory(); })
PX_DEFINE_CLASS(PXMutableArray, PXArray, [](PXClassBuilder<PXMutableArray>& c) { c.factory(); })

namespace {

[[noreturn]] void raiseInsertNil(const PXClass& cls, const char* method) {
  PXException::raise(kPXInvalidArgumentException, "*** -[%@ %@]: attempt to insert nil", cls.name(), method);
}

// Arrays built from a list take it whole; an absent element is a caller's bug.
void checkNoAbsent(std::span<const PXValue> values, const PXClass& cls) {
  for (const PXValue& v : values) {
    if (!v) raiseInsertNil(cls, "initWithObjects:count:");
  }
}

using PackedArray = pxkit::internal::PackedContainer<PXArray, PXValue>;
using PackedMutableArray = pxkit::internal::PackedContainer<PXMutableArray, PXValue>;

}  // namespace

// ---- PXArray ----------------------------------------------------------------

PXRef<PXArray> PXArray::array() {
  // Shared by every empty immutable array; never freed.
  static PXArray* const empty = new PXArray();
  return PXRef<PXArray>(empty);
}

PXRef<PXArray> PXArray::arrayWithObjects(std::initializer_list<PXValue> values) {
  if (values.size() == 0) return array();
  return arrayWithValues(std::vector<PXValue>(values));
}

PXRef<PXArray> PXArray::arrayWithValues(std::vector<PXValue> values) {
  return arrayByTakingValues(values);
}

PXRef<PXArray> PXArray::arrayByTakingValues(std::span<PXValue> values) {
  if (values.empty()) return array();
  checkNoAbsent(values, PXArray::classObject());
  return PackedArray::make(values.size(), values.size(), [&](PXValue* slots) {
    std::uninitialized_move(values.begin(), values.end(), slots);
  });
}

void PXArray::checkMutable(const char* method) const {
  if (!isMutable()) {
    PXException::raise(kPXInvalidArgumentException, "*** -[%@ %@]: mutating method sent to immutable object",
                       pxClass().name(), method);
  }
}

void PXArray::raiseBounds(const char* method, size_t index) const {
  PXException::raise(kPXRangeException, "*** -[%@ %@]: index (%lu) beyond bounds (%lu)", pxClass().name(),
                     method, index, elements_.count);
}

const PXValue& PXArray::objectAtIndex(size_t index) const {
  if (index >= elements_.count) raiseBounds("objectAtIndex:", index);
  return elements_.items[index];
}

PXValue PXArray::firstObject() const {
  return elements_.count == 0 ? PXValue() : elements_.items[0];
}

PXValue PXArray::lastObject() const {
  return elements_.count == 0 ? PXValue() : elements_.items[elements_.count - 1];
}

bool PXArray::containsObject(const PXValue& value) const {
  return indexOfObject(value) != kPXNotFound;
}

size_t PXArray::indexOfObject(const PXValue& value) const {
  for (size_t i = 0; i < elements_.count; ++i) {
    if (elements_.items[i].isEqual(value)) return i;
  }
  return kPXNotFound;
}

size_t PXArray::indexOfObjectIdenticalTo(const PXValue& value) const {
  for (size_t i = 0; i < elements_.count; ++i) {
    if (elements_.items[i].isIdenticalTo(value)) return i;
  }
  return kPXNotFound;
}

PXRef<PXArray> PXArray::filteredArray(const std::function<bool(const PXValue&)>& keep) const {
  using pxkit::internal::kItemPrefetchDistance;
  const std::span<const PXValue> items = values();
  // Nothing is copied up to the first item left out: when every item is kept,
  // the result is the array's own copy (itself, when it is immutable).
  size_t firstLeftOut = items.size();
  std::vector<PXValue> kept;
  for (size_t i = 0; i < items.size(); ++i) {
    if (i + kItemPrefetchDistance < items.size()) items[i + kItemPrefetchDistance].prefetchCount();
    if (keep(items[i])) {
      if (firstLeftOut < i) kept.push_back(items[i]);
    } else if (firstLeftOut == items.size()) {
      firstLeftOut = i;
      kept.reserve(items.size());
      kept.assign(items.begin(), items.begin() + static_cast<ptrdiff_t>(i));
    }
  }
  if (firstLeftOut == items.size()) return copyArray();
  return arrayByTakingValues(kept);
}

void PXArray::prefetchContents() const noexcept {
  elements_.prefetchFirstItems();
}

bool PXArray::isEqual(const PXObject& other) const {
  if (this == &other) return true;
  if (other.objectTag() != PXObjectTag::Array) return false;
  const auto& that = static_cast<const PXArray&>(other);
  if (elements_.count != that.elements_.count) return false;
  for (size_t i = 0; i < elements_.count; ++i) {
    if (!elements_.items[i].isEqual(that.elements_.items[i])) return false;
  }
  return true;
}

PXString PXArray::description() const {
  std::string text;
  pxkit::internal::appendPropertyListText(text, PXValue(PXRef<PXObject>(const_cast<PXArray*>(this))), 0);
  return PXString(text);
}

PXRef<PXObject> PXArray::copy() const {
  return copyArray();
}

PXRef<PXObject> PXArray::mutableCopy() const {
  return mutableCopyArray();
}

PXRef<PXArray> PXArray::copyArray() const {
  if (!isMutable()) return PXRef<PXArray>(const_cast<PXArray*>(this));
  if (elements_.count == 0) return array();
  return PackedArray::make(elements_.count, elements_.count, [&](PXValue* slots) {
    pxkit::internal::copyItems(elements_.items, elements_.count, slots);
  });
}

PXRef<PXMutableArray> PXArray::mutableCopyArray() const {
  return PXMake<PXMutableArray>(std::vector<PXValue>(begin(), end()));
}

PXValue PXArray::valueForKey(std::string_view key) const {
  // "@count" and other "@"-keys ask the array itself; plain keys map over the elements.
  if (key == "@count") return PXValue(static_cast<uint64_t>(elements_.count));
  if (!key.empty() && key[0] == '@') return PXObject::valueForKey(key.substr(1));
  std::vector<PXValue> results;
  results.reserve(elements_.count);
  for (const PXValue& element : *this) {
    PXObject* object = element.objectPointer();
    if (!object) {
      PXException::raise(kPXUndefinedKeyException,
                         "[<%@ %p> valueForUndefinedKey:]: this class is not key value coding-compliant "
                         "for the key %@.",
                         element.className(), static_cast<const void*>(&element), key);
    }
    PXValue result = object->valueForKey(key);
    results.push_back(result ? std::move(result) : PXValue::null());
  }
  return PXValue(arrayWithValues(std::move(results)));
}

// ---- PXMutableArray ---------------------------------------------------------

PXRef<PXMutableArray> PXMutableArray::arrayByTakingValues(std::span<PXValue> values) {
  checkNoAbsent(values, PXMutableArray::classObject());
  return PackedMutableArray::make(values.size(), values.size(), [&](PXValue* slots) {
    std::uninitialized_move(values.begin(), values.end(), slots);
  });
}

PXRef<PXMutableArray> PXMutableArray::arrayWithCapacity(size_t capacity) {
  // Kept with the object: the first `capacity` additions cost no allocation.
  return PackedMutableArray::make(0, capacity, [](PXValue*) {});
}

void PXMutableArray::addObject(const PXValue& value) {
  checkMutable("addObject:");
  if (!value) raiseInsertNil(pxClass(), "addObject:");
  if (elements_.emplaceInPlace(value)) return;
  PXValue item = value;  // `value` may be one of the elements that move
  elements_.moveToStorage();
  elements_.storage.push_back(std::move(item));
  elements_.storageChanged();
}

void PXMutableArray::insertObject(const PXValue& value, size_t index) {
  checkMutable("insertObject:atIndex:");
  if (!value) raiseInsertNil(pxClass(), "insertObject:atIndex:");
  if (index > elements_.count) raiseBounds("insertObject:atIndex:", index);
  PXValue item = value;  // `value` may be one of the elements that move
  elements_.moveToStorage();
  elements_.storage.insert(elements_.storage.begin() + static_cast<ptrdiff_t>(index), std::move(item));
  elements_.storageChanged();
}

void PXMutableArray::removeObjectAtIndex(size_t index) {
  checkMutable("removeObjectAtIndex:");
  if (index >= elements_.count) raiseBounds("removeObjectAtIndex:", index);
  elements_.moveToStorage();
  elements_.storage.erase(elements_.storage.begin() + static_cast<ptrdiff_t>(index));
  elements_.storageChanged();
}

void PXMutableArray::removeLastObject() {
  checkMutable("removeLastObject");
  if (elements_.count == 0) raiseBounds("removeLastObject", 0);
  elements_.moveToStorage();
  elements_.storage.pop_back();
  elements_.storageChanged();
}

void PXMutableArray::removeObject(const PXValue& value) {
  checkMutable("removeObject:");
  elements_.moveToStorage();
  // `value` may live in this array: compare against a copy.
  PXValue target = value;
  std::erase_if(elements_.storage, [&](const PXValue& v) { return v.isEqual(target); });
  elements_.storageChanged();
}

void PXMutableArray::removeObjectIdenticalTo(const PXValue& value) {
  checkMutable("removeObjectIdenticalTo:");
  elements_.moveToStorage();
  PXValue target = value;
  std::erase_if(elements_.storage, [&](const PXValue& v) { return v.isIdenticalTo(target); });
  elements_.storageChanged();
}

void PXMutableArray::removeObjectsInArray(const PXArray& values) {
  checkMutable("removeObjectsInArray:");
  elements_.moveToStorage();
  if (&values == this) {
    elements_.storage.clear();
  } else {
    std::erase_if(elements_.storage, [&](const PXValue& v) { return values.containsObject(v); });
  }
  elements_.storageChanged();
}

void PXMutableArray::removeAllObjects() {
  checkMutable("removeAllObjects");
  elements_.moveToStorage();
  elements_.storage.clear();
  elements_.storageChanged();
}

void PXMutableArray::replaceObjectAtIndex(size_t index, const PXValue& value) {
  checkMutable("replaceObjectAtIndex:withObject:");
  if (!value) raiseInsertNil(pxClass(), "replaceObjectAtIndex:withObject:");
  if (index >= elements_.count) raiseBounds("replaceObjectAtIndex:withObject:", index);
  elements_.items[index] = value;  // in place, wherever the elements are
}

void PXMutableArray::addObjectsFromArray(const PXArray& values) {
  checkMutable("addObjectsFromArray:");
  elements_.moveToStorage();
  if (&values == this) {
    std::vector<PXValue> again = elements_.storage;
    elements_.storage.insert(elements_.storage.end(), again.begin(), again.end());
  } else {
    elements_.storage.insert(elements_.storage.end(), values.begin(), values.end());
  }
  elements_.storageChanged();
}

void PXMutableArray::sortUsingComparator(
    const std::function<PXComparisonResult(const PXValue&, const PXValue&)>& cmp) {
  checkMutable("sortUsingComparator:");
  elements_.moveToStorage();
  std::stable_sort(elements_.storage.begin(), elements_.storage.end(),
                   [&](const PXValue& a, const PXValue& b) { return cmp(a, b) == PXOrderedAscending; });
}

void PXMutableArray::setArray(std::vector<PXValue> values) {
  checkMutable("setArray:");
  for (const PXValue& v : values) {
    if (!v) raiseInsertNil(pxClass(), "setArray:");
  }
  elements_.moveToStorage();  // the old elements go now, not with the block
  elements_.storage = std::move(values);
  elements_.storageChanged();
}

#include <pxkit/platform/PXArray.h>
#include <pxkit/platform/PXException.h>

#include <algorithm>

#include "platform/internal/ValueText.h"

PX_DEFINE_CLASS(PXArray, PXObject, [](PXClassBuilder<PXArray>& c) { c.factory(); })
PX_DEFINE_CLASS(PXMutableArray, PXArray, [](PXClassBuilder<PXMutableArray>& c) { c.factory(); })

namespace {

[[noreturn]] void raiseInsertNil(const PXObject& array, const char* method) {
  PXException::raise(kPXInvalidArgumentException, "*** -[%@ %@]: attempt to insert nil",
                     array.pxClass().name(), method);
}

// Arrays built from a list take it whole; an absent element is a caller's bug.
void checkNoAbsent(const std::vector<PXValue>& values, const PXObject& array) {
  for (const PXValue& v : values) {
    if (!v) raiseInsertNil(array, "initWithObjects:count:");
  }
}

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
  if (values.empty()) return array();
  checkNoAbsent(values, *array());
  return PXMake<PXArray>(std::move(values));
}

void PXArray::checkMutable(const char* method) const {
  if (!isMutable()) {
    PXException::raise(kPXInvalidArgumentException, "*** -[%@ %@]: mutating method sent to immutable object",
                       pxClass().name(), method);
  }
}

void PXArray::raiseBounds(const char* method, size_t index) const {
  PXException::raise(kPXRangeException, "*** -[%@ %@]: index (%lu) beyond bounds (%lu)", pxClass().name(),
                     method, index, values_.size());
}

const PXValue& PXArray::objectAtIndex(size_t index) const {
  if (index >= values_.size()) raiseBounds("objectAtIndex:", index);
  return values_[index];
}

PXValue PXArray::firstObject() const {
  return values_.empty() ? PXValue() : values_.front();
}

PXValue PXArray::lastObject() const {
  return values_.empty() ? PXValue() : values_.back();
}

bool PXArray::containsObject(const PXValue& value) const {
  return indexOfObject(value) != kPXNotFound;
}

size_t PXArray::indexOfObject(const PXValue& value) const {
  for (size_t i = 0; i < values_.size(); ++i) {
    if (values_[i].isEqual(value)) return i;
  }
  return kPXNotFound;
}

size_t PXArray::indexOfObjectIdenticalTo(const PXValue& value) const {
  for (size_t i = 0; i < values_.size(); ++i) {
    if (values_[i].isIdenticalTo(value)) return i;
  }
  return kPXNotFound;
}

PXRef<PXArray> PXArray::filteredArray(const std::function<bool(const PXValue&)>& keep) const {
  std::vector<PXValue> kept;
  for (const PXValue& v : values_) {
    if (keep(v)) kept.push_back(v);
  }
  return arrayWithValues(std::move(kept));
}

bool PXArray::isEqual(const PXObject& other) const {
  if (this == &other) return true;
  if (other.objectTag() != PXObjectTag::Array) return false;
  const auto& that = static_cast<const PXArray&>(other);
  if (values_.size() != that.values_.size()) return false;
  for (size_t i = 0; i < values_.size(); ++i) {
    if (!values_[i].isEqual(that.values_[i])) return false;
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
  if (values_.empty()) return array();
  return PXMake<PXArray>(values_);
}

PXRef<PXMutableArray> PXArray::mutableCopyArray() const {
  return PXMake<PXMutableArray>(values_);
}

PXValue PXArray::valueForKey(std::string_view key) const {
  // "@count" and other "@"-keys ask the array itself; plain keys map over the elements.
  if (key == "@count") return PXValue(static_cast<uint64_t>(values_.size()));
  if (!key.empty() && key[0] == '@') return PXObject::valueForKey(key.substr(1));
  std::vector<PXValue> results;
  results.reserve(values_.size());
  for (const PXValue& element : values_) {
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

PXRef<PXMutableArray> PXMutableArray::arrayWithCapacity(size_t capacity) {
  auto array = PXMake<PXMutableArray>();
  array->values_.reserve(capacity);
  return array;
}

void PXMutableArray::addObject(const PXValue& value) {
  checkMutable("addObject:");
  if (!value) raiseInsertNil(*this, "addObject:");
  values_.push_back(value);
}

void PXMutableArray::insertObject(const PXValue& value, size_t index) {
  checkMutable("insertObject:atIndex:");
  if (!value) raiseInsertNil(*this, "insertObject:atIndex:");
  if (index > values_.size()) raiseBounds("insertObject:atIndex:", index);
  values_.insert(values_.begin() + static_cast<ptrdiff_t>(index), value);
}

void PXMutableArray::removeObjectAtIndex(size_t index) {
  checkMutable("removeObjectAtIndex:");
  if (index >= values_.size()) raiseBounds("removeObjectAtIndex:", index);
  values_.erase(values_.begin() + static_cast<ptrdiff_t>(index));
}

void PXMutableArray::removeLastObject() {
  checkMutable("removeLastObject");
  if (values_.empty()) raiseBounds("removeLastObject", 0);
  values_.pop_back();
}

void PXMutableArray::removeObject(const PXValue& value) {
  checkMutable("removeObject:");
  // `value` may live in this array: compare against a copy.
  PXValue target = value;
  std::erase_if(values_, [&](const PXValue& v) { return v.isEqual(target); });
}

void PXMutableArray::removeObjectIdenticalTo(const PXValue& value) {
  checkMutable("removeObjectIdenticalTo:");
  PXValue target = value;
  std::erase_if(values_, [&](const PXValue& v) { return v.isIdenticalTo(target); });
}

void PXMutableArray::removeObjectsInArray(const PXArray& values) {
  checkMutable("removeObjectsInArray:");
  if (&values == this) {
    values_.clear();
    return;
  }
  std::erase_if(values_, [&](const PXValue& v) { return values.containsObject(v); });
}

void PXMutableArray::removeAllObjects() {
  checkMutable("removeAllObjects");
  values_.clear();
}

void PXMutableArray::replaceObjectAtIndex(size_t index, const PXValue& value) {
  checkMutable("replaceObjectAtIndex:withObject:");
  if (!value) raiseInsertNil(*this, "replaceObjectAtIndex:withObject:");
  if (index >= values_.size()) raiseBounds("replaceObjectAtIndex:withObject:", index);
  values_[index] = value;
}

void PXMutableArray::addObjectsFromArray(const PXArray& values) {
  checkMutable("addObjectsFromArray:");
  if (&values == this) {
    std::vector<PXValue> again = values_;
    values_.insert(values_.end(), again.begin(), again.end());
    return;
  }
  values_.insert(values_.end(), values.begin(), values.end());
}

void PXMutableArray::sortUsingComparator(
    const std::function<PXComparisonResult(const PXValue&, const PXValue&)>& cmp) {
  checkMutable("sortUsingComparator:");
  std::stable_sort(values_.begin(), values_.end(),
                   [&](const PXValue& a, const PXValue& b) { return cmp(a, b) == PXOrderedAscending; });
}

// PXKit — ordered collections of values.
//
// PXArray is immutable; PXMutableArray adds mutation. A mutating call on the
// immutable form, inserting an absent value or reading past the end raises a
// PXException with the messages
//   "*** -[%@ %@]: mutating method sent to immutable object"
//   "*** -[%@ %@]: attempt to insert nil"
//   "*** -[%@ %@]: index (%lu) beyond bounds (%lu)"
// where the placeholders are the class name and the method's keyword name
// (for example "*** -[PXMutableArray insertObject:atIndex:]: attempt to insert nil").
//
//   PXRef<PXMutableArray> list = PXMutableArray::array();
//   list->addObject("a");
//   list->addObject(2);
//   PXRef<PXArray> frozen = list->copyArray();   // immutable snapshot
//
// Thread safety: an immutable array may be read from any thread; a mutable
// array needs external locking when shared.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXContainerItems.h>
#include <pxkit/objects/PXObject.h>

#include <functional>
#include <initializer_list>
#include <span>
#include <vector>

class PXKIT_EXPORT PXArray : public PXObject {
  PX_DECLARE_CLASS(PXArray)
 public:
  // The shared empty array.
  static PXRef<PXArray> array();
  static PXRef<PXArray> arrayWithObjects(std::initializer_list<PXValue> values);
  // Takes the vector's values; absent values raise "attempt to insert nil".
  static PXRef<PXArray> arrayWithValues(std::vector<PXValue> values);
  // Moves the values out of `values` (leaving each absent); absent values raise
  // "attempt to insert nil" before anything is moved.
  static PXRef<PXArray> arrayByTakingValues(std::span<PXValue> values);

  size_t count() const noexcept { return elements_.count; }
  // Raises the bounds exception past the end.
  const PXValue& objectAtIndex(size_t index) const;
  const PXValue& operator[](size_t index) const { return objectAtIndex(index); }
  // Absent when empty.
  PXValue firstObject() const;
  PXValue lastObject() const;
  bool containsObject(const PXValue& value) const;
  // The first index whose value isEqual, or kPXNotFound.
  size_t indexOfObject(const PXValue& value) const;
  // By identity (same object / same scalar bits), or kPXNotFound.
  size_t indexOfObjectIdenticalTo(const PXValue& value) const;
  // Valid until the next mutation.
  std::span<const PXValue> values() const noexcept { return {elements_.items, elements_.count}; }
  const PXValue* begin() const noexcept { return elements_.items; }
  const PXValue* end() const noexcept { return elements_.items + elements_.count; }
  // The elements for which `keep` is true, as an immutable array: a new one,
  // or the receiver itself when it is immutable and keeps every element.
  PXRef<PXArray> filteredArray(const std::function<bool(const PXValue&)>& keep) const;

  bool isEqual(const PXObject& other) const override;
  size_t hash() const override { return elements_.count; }
  void prefetchContents() const noexcept override;  // the first items' storage
  // "(\n    1,\n    two\n)" — the property-list style text.
  PXString description() const override;
  PXRef<PXObject> copy() const override;         // self when immutable
  PXRef<PXObject> mutableCopy() const override;  // a new PXMutableArray
  PXRef<PXArray> copyArray() const;
  PXRef<PXMutableArray> mutableCopyArray() const;

  // Key-value coding on arrays maps the key over the elements.
  PXValue valueForKey(std::string_view key) const override;

 protected:
  explicit PXArray(bool isMutable) noexcept : PXObject(PXObjectTag::Array, isMutable) {}
  PXArray(std::vector<PXValue> values, bool isMutable) noexcept : PXObject(PXObjectTag::Array, isMutable) {
    elements_.storage = std::move(values);
    elements_.storageChanged();
  }
  // Raises the immutable-object exception when this is the immutable form.
  void checkMutable(const char* method) const;
  [[noreturn]] void raiseBounds(const char* method, size_t index) const;

  // Kept with the object by the factories that know the count; see PXContainerItems.h.
  pxkit::internal::ContainerItems<PXValue> elements_;

 public:
  PXArray() noexcept : PXArray(false) {}
  explicit PXArray(std::vector<PXValue> values) noexcept : PXArray(std::move(values), false) {}
};

inline constexpr size_t kPXNotFound = static_cast<size_t>(-1);

class PXKIT_EXPORT PXMutableArray : public PXArray {
  PX_DECLARE_CLASS(PXMutableArray)
 public:
  PXMutableArray() noexcept : PXArray(true) {}
  explicit PXMutableArray(std::vector<PXValue> values) noexcept : PXArray(std::move(values), true) {}
  static PXRef<PXMutableArray> array() { return PXMake<PXMutableArray>(); }
  static PXRef<PXMutableArray> arrayWithCapacity(size_t capacity);
  // A mutable array of the values moved out of `values` (each left absent);
  // absent values raise "attempt to insert nil" before anything is moved.
  static PXRef<PXMutableArray> arrayByTakingValues(std::span<PXValue> values);

  void addObject(const PXValue& value);                   // "addObject:"
  void insertObject(const PXValue& value, size_t index);  // "insertObject:atIndex:"
  void removeObjectAtIndex(size_t index);                 // "removeObjectAtIndex:"
  void removeLastObject();                                // "removeLastObject"
  void removeObject(const PXValue& value);                // every isEqual element
  void removeObjectIdenticalTo(const PXValue& value);     // every identical element
  void removeObjectsInArray(const PXArray& values);
  void removeAllObjects();
  void replaceObjectAtIndex(size_t index, const PXValue& value);  // "replaceObjectAtIndex:withObject:"
  void addObjectsFromArray(const PXArray& values);
  void sortUsingComparator(const std::function<PXComparisonResult(const PXValue&, const PXValue&)>& cmp);
  // Replaces every element by `values`; absent values raise "attempt to insert nil".
  void setArray(std::vector<PXValue> values);  // "setArray:"
};

// PXKit — key/value maps that keep insertion order.
//
// PXDictionary is immutable; PXMutableDictionary adds mutation. Keys are
// values (almost always strings), compared with isEqual and copied on
// insertion. Enumeration follows insertion order; replacing a value keeps the
// key's place. Lookups are hashed.
//
// Errors raise PXException with the messages
//   "*** -[%@ %@]: mutating method sent to immutable object"
//   "*** -[%@ %@]: attempt to insert nil key"
//   "*** -[%@ %@]: attempt to insert nil value (key: %@)"
//
//   auto d = PXMutableDictionary::dictionary();
//   d->setObject(1, "launches");
//   PXValue n = d->objectForKey("launches");     // absent when missing
//
// Thread safety: an immutable dictionary may be read from any thread; a
// mutable one needs external locking when shared.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXContainerItems.h>
#include <pxkit/objects/PXObject.h>

#include <atomic>
#include <functional>
#include <initializer_list>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

namespace pxkit::internal {
struct DictionaryIndex;
}

class PXKIT_EXPORT PXDictionary : public PXObject {
  PX_DECLARE_CLASS(PXDictionary)
 public:
  using Entry = std::pair<PXValue, PXValue>;

  // The shared empty dictionary.
  static PXRef<PXDictionary> dictionary();
  // Key/value pairs in order; a later duplicate key replaces the earlier value in place.
  static PXRef<PXDictionary> dictionaryWithEntries(std::initializer_list<Entry> entries);
  static PXRef<PXDictionary> dictionaryWithEntries(std::vector<Entry> entries);

  ~PXDictionary() override;

  size_t count() const noexcept { return elements_.count; }
  // The value for `key`, or absent.
  PXValue objectForKey(const PXValue& key) const;
  const PXValue* find(const PXValue& key) const;  // null when missing; valid until the next mutation
  // The same for a string key given as bytes (no value is built for the lookup).
  const PXValue* findStringKey(std::string_view key) const;
  PXRef<PXArray> allKeys() const;
  PXRef<PXArray> allValues() const;
  // In insertion order; valid until the next mutation.
  std::span<const Entry> entries() const noexcept { return {elements_.items, elements_.count}; }
  const Entry* begin() const noexcept { return elements_.items; }
  const Entry* end() const noexcept { return elements_.items + elements_.count; }
  void enumerateKeysAndObjects(
      const std::function<void(const PXValue& key, const PXValue& value, bool* stop)>& block) const;

  bool isEqual(const PXObject& other) const override;
  size_t hash() const override { return elements_.count; }
  void prefetchContents() const noexcept override;  // the first items' storage
  // "{\n    key = value;\n}" — the property-list style text.
  PXString description() const override;
  PXRef<PXObject> copy() const override;
  PXRef<PXObject> mutableCopy() const override;
  PXRef<PXDictionary> copyDictionary() const;
  PXRef<PXMutableDictionary> mutableCopyDictionary() const;

  // Key-value coding on dictionaries reads the entry for the key (absent when missing).
  PXValue valueForKey(std::string_view key) const override;
  void setValueForKey(const PXValue& value, std::string_view key) override;

  PXDictionary() noexcept : PXObject(PXObjectTag::Dictionary, false) {}
  explicit PXDictionary(std::vector<Entry> entries);

 protected:
  // Takes the entries as they are: the caller guarantees distinct, present keys.
  PXDictionary(std::vector<Entry> entries, bool isMutable);
  // A new immutable dictionary held in one allocation with its entries, moved
  // out of `entries`; the caller guarantees distinct, present keys and values.
  static PXRef<PXDictionary> dictionaryByTakingTrustedEntries(std::span<Entry> entries);
  // Checks for absent keys and values, copies object keys and folds duplicates
  // (a later one replaces the earlier value in place).
  void adoptEntries();
  void checkMutable(const char* method) const;
  size_t indexOfKey(const PXValue& key) const;  // kPXNotFound when missing
  size_t indexOfStringKey(std::string_view key) const;
  const pxkit::internal::DictionaryIndex* ensureIndex() const;
  void invalidateIndex() noexcept;

  // Kept with the object by the factories that know the count; see PXContainerItems.h.
  pxkit::internal::ContainerItems<Entry> elements_;
  // Hash index over the entries, built on first lookup past a few entries.
  mutable std::atomic<pxkit::internal::DictionaryIndex*> index_{nullptr};
};

class PXKIT_EXPORT PXMutableDictionary : public PXDictionary {
  PX_DECLARE_CLASS(PXMutableDictionary)
 public:
  PXMutableDictionary() noexcept;
  explicit PXMutableDictionary(std::vector<Entry> entries);
  static PXRef<PXMutableDictionary> dictionary() { return PXMake<PXMutableDictionary>(); }
  static PXRef<PXMutableDictionary> dictionaryWithCapacity(size_t capacity);

  void setObject(const PXValue& value, const PXValue& key);  // "setObject:forKey:"
  void removeObjectForKey(const PXValue& key);               // "removeObjectForKey:"
  void removeAllObjects();
  void addEntriesFromDictionary(const PXDictionary& other);

 protected:
  // A new mutable dictionary of the entries moved out of `entries`; the caller
  // guarantees distinct, present keys and values.
  static PXRef<PXMutableDictionary> dictionaryByTakingTrustedEntries(std::span<Entry> entries);
};

#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXException.h>

#include <cstring>
#include <iterator>
#include <memory>

#include "objects/internal/DictionaryIndex.h"
#include "objects/internal/PackedContainer.h"
#include "objects/internal/ValueText.h"

using pxkit::internal::DictionaryIndex;

PX_DEFINE_CLASS(PXDictionary, PXObject, [](PXClassBuilder<PXDictionary>& c) { c.factory(); })
PX_DEFINE_CLASS(PXMutableDictionary, PXDictionary,
                [](PXClassBuilder<PXMutableDictionary>& c) { c.factory(); })

namespace {

constexpr const char* kInitMethod = "initWithObjects:forKeys:count:";

// Key comparison for lookups: equal inline strings (nearly all keys) are
// decided by PXValue's inline fast path; heap strings compare their lengths
// before their bytes; other kinds go through isEqual.
struct KeyMatcher {
  const PXValue& key;
  bool isHeapString = key.isString() && key.stringValue().size() > 14;
  std::string_view bytes = key.stringValue();

  bool operator()(const PXValue& candidate) const {
    if (isHeapString) {
      std::string_view other = candidate.stringValue();  // "" for every other kind
      return other.size() == bytes.size() && candidate.isString() &&
             std::memcmp(other.data(), bytes.data(), bytes.size()) == 0;
    }
    return candidate.isEqual(key);
  }
};

using PackedDictionary = pxkit::internal::PackedContainer<PXDictionary, PXDictionary::Entry>;
using PackedMutableDictionary = pxkit::internal::PackedContainer<PXMutableDictionary, PXDictionary::Entry>;

}  // namespace

// ---- Construction -----------------------------------------------------------

PXRef<PXDictionary> PXDictionary::dictionary() {
  // Shared by every empty immutable dictionary; never freed.
  static PXDictionary* const empty = new PXDictionary();
  return PXRef<PXDictionary>(empty);
}

PXRef<PXDictionary> PXDictionary::dictionaryWithEntries(std::initializer_list<Entry> entries) {
  if (entries.size() == 0) return dictionary();
  return dictionaryWithEntries(std::vector<Entry>(entries));
}

PXRef<PXDictionary> PXDictionary::dictionaryWithEntries(std::vector<Entry> entries) {
  if (entries.empty()) return dictionary();
  // Checked, with object keys copied and repeated keys folded, by an ordinary
  // dictionary; then packed with its object. Positions are unchanged, so a
  // table built while folding serves the packed one.
  PXDictionary checked(std::move(entries));
  PXRef<PXDictionary> packed = dictionaryByTakingTrustedEntries(checked.elements_.storage);
  packed->index_.store(checked.index_.exchange(nullptr, std::memory_order_relaxed),
                       std::memory_order_relaxed);
  return packed;
}

PXRef<PXDictionary> PXDictionary::dictionaryByTakingTrustedEntries(std::span<Entry> entries) {
  if (entries.empty()) return dictionary();
  return PackedDictionary::make(entries.size(), entries.size(), [&](Entry* slots) {
    std::uninitialized_move(entries.begin(), entries.end(), slots);
  });
}

PXDictionary::PXDictionary(std::vector<Entry> entries) : PXDictionary(std::move(entries), false) {
  adoptEntries();
}

PXDictionary::PXDictionary(std::vector<Entry> entries, bool isMutable)
    : PXObject(PXObjectTag::Dictionary, isMutable) {
  elements_.storage = std::move(entries);
  elements_.storageChanged();
}

PXDictionary::~PXDictionary() {
  if (DictionaryIndex* index = index_.load(std::memory_order_relaxed)) DictionaryIndex::destroy(index);
}

void PXDictionary::adoptEntries() {
  for (Entry& entry : elements_.storage) {
    if (!entry.first) {
      PXException::raise(kPXInvalidArgumentException, "*** -[%@ %@]: attempt to insert nil key",
                         pxClass().name(), kInitMethod);
    }
    if (!entry.second) {
      PXException::raise(kPXInvalidArgumentException, "*** -[%@ %@]: attempt to insert nil value (key: %@)",
                         pxClass().name(), kInitMethod, entry.first);
    }
    // Keys are copied so that a mutable key changed later cannot move under the index.
    if (entry.first.isObject()) entry.first = entry.first.copy();
  }
  // A later duplicate replaces the earlier value and keeps the earlier place.
  size_t n = elements_.storage.size();
  size_t kept = 0;
  if (n <= DictionaryIndex::kLinearLimit) {
    for (size_t i = 0; i < n; ++i) {
      KeyMatcher same{elements_.storage[i].first};
      size_t j = 0;
      while (j < kept && !same(elements_.storage[j].first)) ++j;
      if (j < kept) {
        elements_.storage[j].second = std::move(elements_.storage[i].second);
      } else {
        if (kept != i) elements_.storage[kept] = std::move(elements_.storage[i]);
        ++kept;
      }
    }
  } else {
    // Deduplicating needs every key hashed anyway: keep the table for lookups.
    DictionaryIndex* index = DictionaryIndex::make(n);
    for (size_t i = 0; i < n; ++i) {
      size_t hash = elements_.storage[i].first.hash();
      KeyMatcher same{elements_.storage[i].first};
      size_t j = index->find(hash, [&](size_t at) { return same(elements_.storage[at].first); });
      if (j != DictionaryIndex::kNotFound) {
        elements_.storage[j].second = std::move(elements_.storage[i].second);
      } else {
        if (kept != i) elements_.storage[kept] = std::move(elements_.storage[i]);
        index->insert(hash, kept);
        ++kept;
      }
    }
    index_.store(index, std::memory_order_release);
  }
  elements_.storage.resize(kept);
  elements_.storageChanged();
}

// ---- Lookup -----------------------------------------------------------------

const DictionaryIndex* PXDictionary::ensureIndex() const {
  DictionaryIndex* index = index_.load(std::memory_order_acquire);
  if (index) return index;
  // Immutable dictionaries may be read from many threads at once: each may
  // build a table, one wins, the others throw theirs away.
  DictionaryIndex* made = DictionaryIndex::build(entries());
  if (index_.compare_exchange_strong(index, made, std::memory_order_acq_rel, std::memory_order_acquire))
    return made;
  DictionaryIndex::destroy(made);
  return index;
}

size_t PXDictionary::indexOfKey(const PXValue& key) const {
  KeyMatcher same{key};
  if (elements_.count <= DictionaryIndex::kLinearLimit) {
    for (size_t i = 0; i < elements_.count; ++i) {
      if (same(elements_.items[i].first)) return i;
    }
    return kPXNotFound;
  }
  size_t at = ensureIndex()->find(key.hash(), [&](size_t i) { return same(elements_.items[i].first); });
  return at == DictionaryIndex::kNotFound ? kPXNotFound : at;
}

size_t PXDictionary::indexOfStringKey(std::string_view key) const {
  auto same = [&](const PXValue& candidate) {
    return candidate.isString() && candidate.stringValue() == key;
  };
  if (elements_.count <= DictionaryIndex::kLinearLimit) {
    for (size_t i = 0; i < elements_.count; ++i) {
      if (same(elements_.items[i].first)) return i;
    }
    return kPXNotFound;
  }
  size_t at = ensureIndex()->find(pxkit::internal::hashStringBytes(key),
                                  [&](size_t i) { return same(elements_.items[i].first); });
  return at == DictionaryIndex::kNotFound ? kPXNotFound : at;
}

void PXDictionary::invalidateIndex() noexcept {
  if (DictionaryIndex* index = index_.exchange(nullptr, std::memory_order_acq_rel))
    DictionaryIndex::destroy(index);
}

PXValue PXDictionary::objectForKey(const PXValue& key) const {
  const PXValue* found = find(key);
  return found ? *found : PXValue();
}

const PXValue* PXDictionary::find(const PXValue& key) const {
  if (!key) return nullptr;
  size_t i = indexOfKey(key);
  return i == kPXNotFound ? nullptr : &elements_.items[i].second;
}

const PXValue* PXDictionary::findStringKey(std::string_view key) const {
  size_t i = indexOfStringKey(key);
  return i == kPXNotFound ? nullptr : &elements_.items[i].second;
}

PXRef<PXArray> PXDictionary::allKeys() const {
  std::vector<PXValue> keys;
  keys.reserve(elements_.count);
  for (const Entry& e : *this) keys.push_back(e.first);
  return PXArray::arrayWithValues(std::move(keys));
}

PXRef<PXArray> PXDictionary::allValues() const {
  std::vector<PXValue> values;
  values.reserve(elements_.count);
  for (const Entry& e : *this) values.push_back(e.second);
  return PXArray::arrayWithValues(std::move(values));
}

void PXDictionary::enumerateKeysAndObjects(
    const std::function<void(const PXValue& key, const PXValue& value, bool* stop)>& block) const {
  bool stop = false;
  for (const Entry& e : *this) {
    block(e.first, e.second, &stop);
    if (stop) break;
  }
}

// ---- Identity, text, copies -------------------------------------------------

void PXDictionary::prefetchContents() const noexcept {
  elements_.prefetchFirstItems();
}

bool PXDictionary::isEqual(const PXObject& other) const {
  if (this == &other) return true;
  if (other.objectTag() != PXObjectTag::Dictionary) return false;
  const auto& that = static_cast<const PXDictionary&>(other);
  if (elements_.count != that.elements_.count) return false;
  for (const Entry& e : *this) {
    const PXValue* found = that.find(e.first);
    if (!found || !found->isEqual(e.second)) return false;
  }
  return true;
}

PXString PXDictionary::description() const {
  std::string text;
  pxkit::internal::appendPropertyListText(text, PXValue(PXRef<PXObject>(const_cast<PXDictionary*>(this))), 0);
  return PXString(text);
}

PXRef<PXObject> PXDictionary::copy() const {
  return copyDictionary();
}

PXRef<PXObject> PXDictionary::mutableCopy() const {
  return mutableCopyDictionary();
}

PXRef<PXDictionary> PXDictionary::copyDictionary() const {
  if (!isMutable()) return PXRef<PXDictionary>(const_cast<PXDictionary*>(this));
  if (elements_.count == 0) return dictionary();
  // The entries are already distinct and their keys copied.
  return PackedDictionary::make(elements_.count, elements_.count, [&](Entry* slots) {
    pxkit::internal::copyItems(elements_.items, elements_.count, slots);
  });
}

PXRef<PXMutableDictionary> PXDictionary::mutableCopyDictionary() const {
  auto copy = PXMake<PXMutableDictionary>();
  copy->elements_.storage.assign(begin(), end());
  copy->elements_.storageChanged();
  return copy;
}

// ---- Key-value coding -------------------------------------------------------

PXValue PXDictionary::valueForKey(std::string_view key) const {
  // "@"-keys ask the dictionary itself, as in "@count".
  if (key == "@count") return PXValue(static_cast<uint64_t>(elements_.count));
  if (!key.empty() && key[0] == '@') return PXObject::valueForKey(key.substr(1));
  const PXValue* found = findStringKey(key);
  return found ? *found : PXValue();
}

void PXDictionary::setValueForKey(const PXValue& value, std::string_view key) {
  checkMutable("setValue:forKey:");
  auto& self = static_cast<PXMutableDictionary&>(*this);
  if (value) {
    self.setObject(value, PXValue(key));
  } else {
    self.removeObjectForKey(PXValue(key));
  }
}

void PXDictionary::checkMutable(const char* method) const {
  if (!isMutable()) {
    PXException::raise(kPXInvalidArgumentException, "*** -[%@ %@]: mutating method sent to immutable object",
                       pxClass().name(), method);
  }
}

// ---- PXMutableDictionary ----------------------------------------------------

PXMutableDictionary::PXMutableDictionary() noexcept : PXDictionary({}, true) {}

PXMutableDictionary::PXMutableDictionary(std::vector<Entry> entries)
    : PXDictionary(std::move(entries), true) {
  adoptEntries();
}

PXRef<PXMutableDictionary> PXMutableDictionary::dictionaryByTakingTrustedEntries(std::span<Entry> entries) {
  return PackedMutableDictionary::make(entries.size(), entries.size(), [&](Entry* slots) {
    std::uninitialized_move(entries.begin(), entries.end(), slots);
  });
}

PXRef<PXMutableDictionary> PXMutableDictionary::dictionaryWithCapacity(size_t capacity) {
  // Kept with the object: the first `capacity` keys cost no allocation.
  return PackedMutableDictionary::make(0, capacity, [](Entry*) {});
}

void PXMutableDictionary::setObject(const PXValue& value, const PXValue& key) {
  checkMutable("setObject:forKey:");
  if (!key) {
    PXException::raise(kPXInvalidArgumentException, "*** -[%@ %@]: attempt to insert nil key",
                       pxClass().name(), "setObject:forKey:");
  }
  if (!value) {
    PXException::raise(kPXInvalidArgumentException, "*** -[%@ %@]: attempt to insert nil value (key: %@)",
                       pxClass().name(), "setObject:forKey:", key);
  }
  size_t at = indexOfKey(key);
  if (at != kPXNotFound) {
    elements_.items[at].second = value;  // replaced in place: the key keeps its position
    return;
  }
  // Made before any entry moves: `key` and `value` may be parts of entries.
  Entry entry(key.isObject() ? key.copy() : key, value);
  if (!elements_.emplaceInPlace(std::move(entry))) {
    elements_.moveToStorage();
    elements_.storage.push_back(std::move(entry));
    elements_.storageChanged();
  }
  if (DictionaryIndex* index = index_.load(std::memory_order_relaxed)) {
    if (index->hasRoom()) {
      index->insert(elements_.items[elements_.count - 1].first.hash(), elements_.count - 1);
    } else {
      invalidateIndex();  // rebuilt, larger, by the next lookup
    }
  }
}

void PXMutableDictionary::removeObjectForKey(const PXValue& key) {
  checkMutable("removeObjectForKey:");
  if (!key) {
    PXException::raise(kPXInvalidArgumentException, "*** -[%@ %@]: key cannot be nil", pxClass().name(),
                       "removeObjectForKey:");
  }
  size_t at = indexOfKey(key);
  if (at == kPXNotFound) return;
  elements_.moveToStorage();
  elements_.storage.erase(elements_.storage.begin() + static_cast<ptrdiff_t>(at));
  elements_.storageChanged();
  // Positions after the removed entry moved down by one: the table is stale.
  invalidateIndex();
}

void PXMutableDictionary::removeAllObjects() {
  checkMutable("removeAllObjects");
  elements_.moveToStorage();  // the old entries go now, not with the block
  elements_.storage.clear();
  elements_.storageChanged();
  invalidateIndex();
}

void PXMutableDictionary::addEntriesFromDictionary(const PXDictionary& other) {
  checkMutable("addEntriesFromDictionary:");
  if (&other == this) return;
  for (const Entry& e : other) setObject(e.second, e.first);
}

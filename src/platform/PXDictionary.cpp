#include <pxkit/platform/PXDictionary.h>
#include <pxkit/platform/PXException.h>

#include <cstring>

#include "platform/internal/DictionaryIndex.h"
#include "platform/internal/ValueText.h"

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
  return PXMake<PXDictionary>(std::move(entries));
}

PXDictionary::PXDictionary(std::vector<Entry> entries) : PXDictionary(std::move(entries), false) {
  adoptEntries();
}

PXDictionary::PXDictionary(std::vector<Entry> entries, bool isMutable)
    : PXObject(PXObjectTag::Dictionary, isMutable), entries_(std::move(entries)) {}

PXDictionary::~PXDictionary() {
  if (DictionaryIndex* index = index_.load(std::memory_order_relaxed)) DictionaryIndex::destroy(index);
}

void PXDictionary::adoptEntries() {
  for (Entry& entry : entries_) {
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
  size_t n = entries_.size();
  size_t kept = 0;
  if (n <= DictionaryIndex::kLinearLimit) {
    for (size_t i = 0; i < n; ++i) {
      KeyMatcher same{entries_[i].first};
      size_t j = 0;
      while (j < kept && !same(entries_[j].first)) ++j;
      if (j < kept) {
        entries_[j].second = std::move(entries_[i].second);
      } else {
        if (kept != i) entries_[kept] = std::move(entries_[i]);
        ++kept;
      }
    }
  } else {
    // Deduplicating needs every key hashed anyway: keep the table for lookups.
    DictionaryIndex* index = DictionaryIndex::make(n);
    for (size_t i = 0; i < n; ++i) {
      size_t hash = entries_[i].first.hash();
      KeyMatcher same{entries_[i].first};
      size_t j = index->find(hash, [&](size_t at) { return same(entries_[at].first); });
      if (j != DictionaryIndex::kNotFound) {
        entries_[j].second = std::move(entries_[i].second);
      } else {
        if (kept != i) entries_[kept] = std::move(entries_[i]);
        index->insert(hash, kept);
        ++kept;
      }
    }
    index_.store(index, std::memory_order_release);
  }
  entries_.resize(kept);
}

// ---- Lookup -----------------------------------------------------------------

const DictionaryIndex* PXDictionary::ensureIndex() const {
  DictionaryIndex* index = index_.load(std::memory_order_acquire);
  if (index) return index;
  // Immutable dictionaries may be read from many threads at once: each may
  // build a table, one wins, the others throw theirs away.
  DictionaryIndex* made = DictionaryIndex::build(entries_);
  if (index_.compare_exchange_strong(index, made, std::memory_order_acq_rel, std::memory_order_acquire))
    return made;
  DictionaryIndex::destroy(made);
  return index;
}

size_t PXDictionary::indexOfKey(const PXValue& key) const {
  KeyMatcher same{key};
  if (entries_.size() <= DictionaryIndex::kLinearLimit) {
    for (size_t i = 0; i < entries_.size(); ++i) {
      if (same(entries_[i].first)) return i;
    }
    return kPXNotFound;
  }
  size_t at = ensureIndex()->find(key.hash(), [&](size_t i) { return same(entries_[i].first); });
  return at == DictionaryIndex::kNotFound ? kPXNotFound : at;
}

size_t PXDictionary::indexOfStringKey(std::string_view key) const {
  auto same = [&](const PXValue& candidate) {
    return candidate.isString() && candidate.stringValue() == key;
  };
  if (entries_.size() <= DictionaryIndex::kLinearLimit) {
    for (size_t i = 0; i < entries_.size(); ++i) {
      if (same(entries_[i].first)) return i;
    }
    return kPXNotFound;
  }
  size_t at = ensureIndex()->find(pxkit::internal::hashStringBytes(key),
                                  [&](size_t i) { return same(entries_[i].first); });
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
  return i == kPXNotFound ? nullptr : &entries_[i].second;
}

const PXValue* PXDictionary::findStringKey(std::string_view key) const {
  size_t i = indexOfStringKey(key);
  return i == kPXNotFound ? nullptr : &entries_[i].second;
}

PXRef<PXArray> PXDictionary::allKeys() const {
  std::vector<PXValue> keys;
  keys.reserve(entries_.size());
  for (const Entry& e : entries_) keys.push_back(e.first);
  return PXArray::arrayWithValues(std::move(keys));
}

PXRef<PXArray> PXDictionary::allValues() const {
  std::vector<PXValue> values;
  values.reserve(entries_.size());
  for (const Entry& e : entries_) values.push_back(e.second);
  return PXArray::arrayWithValues(std::move(values));
}

void PXDictionary::enumerateKeysAndObjects(
    const std::function<void(const PXValue& key, const PXValue& value, bool* stop)>& block) const {
  bool stop = false;
  for (const Entry& e : entries_) {
    block(e.first, e.second, &stop);
    if (stop) break;
  }
}

// ---- Identity, text, copies -------------------------------------------------

bool PXDictionary::isEqual(const PXObject& other) const {
  if (this == &other) return true;
  if (other.objectTag() != PXObjectTag::Dictionary) return false;
  const auto& that = static_cast<const PXDictionary&>(other);
  if (entries_.size() != that.entries_.size()) return false;
  for (const Entry& e : entries_) {
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
  if (entries_.empty()) return dictionary();
  // The entries are already distinct and their keys copied.
  return PXRef<PXDictionary>::adopt(new PXDictionary(entries_, false));
}

PXRef<PXMutableDictionary> PXDictionary::mutableCopyDictionary() const {
  auto copy = PXMake<PXMutableDictionary>();
  copy->entries_ = entries_;
  return copy;
}

// ---- Key-value coding -------------------------------------------------------

PXValue PXDictionary::valueForKey(std::string_view key) const {
  // "@"-keys ask the dictionary itself, as in "@count".
  if (key == "@count") return PXValue(static_cast<uint64_t>(entries_.size()));
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

PXRef<PXMutableDictionary> PXMutableDictionary::dictionaryWithCapacity(size_t capacity) {
  auto dictionary = PXMake<PXMutableDictionary>();
  dictionary->entries_.reserve(capacity);
  return dictionary;
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
    entries_[at].second = value;  // replaced in place: the key keeps its position
    return;
  }
  entries_.emplace_back(key.isObject() ? key.copy() : key, value);
  if (DictionaryIndex* index = index_.load(std::memory_order_relaxed)) {
    if (index->hasRoom()) {
      index->insert(entries_.back().first.hash(), entries_.size() - 1);
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
  entries_.erase(entries_.begin() + static_cast<ptrdiff_t>(at));
  // Positions after the removed entry moved down by one: the table is stale.
  invalidateIndex();
}

void PXMutableDictionary::removeAllObjects() {
  checkMutable("removeAllObjects");
  entries_.clear();
  invalidateIndex();
}

void PXMutableDictionary::addEntriesFromDictionary(const PXDictionary& other) {
  checkMutable("addEntriesFromDictionary:");
  if (&other == this) return;
  for (const Entry& e : other) setObject(e.second, e.first);
}

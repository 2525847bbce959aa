// The hash index of a PXDictionary: an open-addressing table of entry positions.
//
// A dictionary keeps its entries in a vector, in insertion order; this table
// maps a key's hash to the entry's position. It is built only when a lookup
// needs it and the dictionary has more than kLinearLimit entries: below that a
// linear scan of the vector is faster than hashing. Each slot keeps 32 bits of
// the hash beside the position, so a probe rarely compares keys that differ.
//
// The table is one allocation (header and slots together), at most half full,
// with linear probing. It never owns the keys; positions refer into the vector.
#pragma once

#include <pxkit/objects/PXDictionary.h>

#include <cstdint>
#include <new>
#include <span>
#include <string_view>
#include <vector>

namespace pxkit::internal {

struct DictionaryIndex {
  // Up to this many entries, lookups scan the entries instead of hashing.
  static constexpr size_t kLinearLimit = 8;
  static constexpr size_t kNotFound = static_cast<size_t>(-1);

  struct Slot {
    uint32_t hash;
    uint32_t entry;  // position + 1; 0 is an empty slot
  };

  uint32_t mask;  // capacity - 1; the capacity is a power of two
  uint32_t used;

  Slot* slots() noexcept { return reinterpret_cast<Slot*>(this + 1); }
  const Slot* slots() const noexcept { return reinterpret_cast<const Slot*>(this + 1); }

  // An empty table with room for `count` entries at most half full.
  static DictionaryIndex* make(size_t count) {
    size_t capacity = 16;
    while (capacity < count * 2) capacity *= 2;
    if (capacity > (size_t{1} << 31)) throw std::bad_alloc();
    void* memory = ::operator new(sizeof(DictionaryIndex) + capacity * sizeof(Slot));
    auto* index = new (memory) DictionaryIndex{static_cast<uint32_t>(capacity - 1), 0};
    Slot* s = index->slots();
    for (size_t i = 0; i < capacity; ++i) s[i] = Slot{0, 0};
    return index;
  }
  static void destroy(DictionaryIndex* index) noexcept { ::operator delete(index); }

  // A table over entries whose keys are known to be distinct.
  static DictionaryIndex* build(std::span<const PXDictionary::Entry> entries) {
    DictionaryIndex* index = make(entries.size());
    for (size_t i = 0; i < entries.size(); ++i) index->insert(entries[i].first.hash(), i);
    return index;
  }

  // Room for one more entry without passing half full?
  bool hasRoom() const noexcept {
    return (static_cast<size_t>(used) + 1) * 2 <= static_cast<size_t>(mask) + 1;
  }

  // Adds a position for a key known to be absent; the caller checks hasRoom().
  void insert(size_t hash, size_t entry) noexcept {
    auto h = static_cast<uint32_t>(hash);
    Slot* s = slots();
    uint32_t i = h & mask;
    while (s[i].entry != 0) i = (i + 1) & mask;
    s[i] = Slot{h, static_cast<uint32_t>(entry + 1)};
    ++used;
  }

  // The position of the entry whose key satisfies `same`, or kNotFound.
  template <class Same>
  size_t find(size_t hash, const Same& same) const {
    auto h = static_cast<uint32_t>(hash);
    const Slot* s = slots();
    for (uint32_t i = h & mask;; i = (i + 1) & mask) {
      const Slot& slot = s[i];
      if (slot.entry == 0) return kNotFound;
      if (slot.hash == h && same(slot.entry - 1)) return slot.entry - 1;
    }
  }
};

}  // namespace pxkit::internal

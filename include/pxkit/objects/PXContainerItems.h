// PXKit — the elements of an array or a dictionary (internal to both).
//
// Ordinary containers keep their elements in a vector. Those made by a factory
// that knows the final count (the immutable factories, copies, the JSON
// decoder, the mutable factories given a capacity) keep them right after the
// object, in its own allocation: one allocation per container instead of two.
// Readers see items[0, count) either way. A mutable container appends in
// place while it has room, and moves its items to ordinary storage before any
// other change (the slots it leaves stay with the object until it goes).
#pragma once

#include <pxkit/objects/PXObject.h>
#include <pxkit/objects/PXValue.h>

#include <cstddef>
#include <iterator>
#include <memory>
#include <new>
#include <utility>
#include <vector>

namespace pxkit::internal {

// Copying or dropping the items of a large container is a retain or a release
// of each, a locked instruction that waits for the item's cache line; the
// items' storage is scattered over the heap. Asking for the lines a few items
// ahead lets those cache misses overlap instead of coming one after another.
inline constexpr size_t kItemPrefetchDistance = 16;
// An item that goes with its container takes its own items along: they are
// asked for once the item's own line has arrived, a few items ahead.
inline constexpr size_t kItemContentsPrefetchDistance = 6;
// How many of its first items a container asks for (PXObject::prefetchContents).
inline constexpr size_t kContentsPrefetchCount = 8;

inline void prefetchCounts(const PXValue& item) noexcept {
  item.prefetchCount();
}
inline void prefetchCounts(const std::pair<PXValue, PXValue>& entry) noexcept {
  entry.first.prefetchCount();
  entry.second.prefetchCount();
}
// The contents of an item that will be destroyed with the reference about to be dropped.
inline void prefetchContentsOfLast(const PXValue& item) noexcept {
  if (const PXObject* object = item.objectPointer(); object && object->retainCount() == 1)
    object->prefetchContents();
}
inline void prefetchContentsOfLast(const std::pair<PXValue, PXValue>& entry) noexcept {
  prefetchContentsOfLast(entry.second);  // keys are strings
}

// Copies `count` items into uninitialised slots.
template <class Item>
void copyItems(const Item* from, size_t count, Item* to) noexcept {
  for (size_t i = 0; i < count; ++i) {
    if (i + kItemPrefetchDistance < count) prefetchCounts(from[i + kItemPrefetchDistance]);
    ::new (static_cast<void*>(to + i)) Item(from[i]);
  }
}

// Destroys `count` items in place.
template <class Item>
void destroyItems(Item* items, size_t count) noexcept {
  for (size_t i = 0; i < count; ++i) {
    if (i + kItemPrefetchDistance < count) prefetchCounts(items[i + kItemPrefetchDistance]);
    if (i + kItemContentsPrefetchDistance < count)
      prefetchContentsOfLast(items[i + kItemContentsPrefetchDistance]);
    items[i].~Item();
  }
}

template <class Item>
struct ContainerItems {
  Item* items = nullptr;
  size_t count = 0;
  size_t room = 0;            // slots kept with the object (items[count, room) are free)
  std::vector<Item> storage;  // unused while the items are kept with the object

  bool keptWithObject() const noexcept { return items != storage.data(); }

  // What a container's prefetchContents asks for: its first items' counts.
  void prefetchFirstItems() const noexcept {
    for (size_t i = 0; i < count && i < kContentsPrefetchCount; ++i) prefetchCounts(items[i]);
  }

  // After every change to `storage`.
  void storageChanged() noexcept {
    items = storage.data();
    count = storage.size();
  }
  // Appends in a free slot kept with the object; false when there is none
  // (then the caller moves the items to storage and appends there).
  template <class... Args>
  bool emplaceInPlace(Args&&... args) noexcept {
    if (!keptWithObject() || count == room) return false;
    ::new (static_cast<void*>(items + count)) Item(std::forward<Args>(args)...);
    ++count;
    return true;
  }
  // Before any other change to items kept with the object: they move to `storage`.
  void moveToStorage() {
    if (!keptWithObject()) return;
    storage.reserve(count + count / 2 + 1);
    storage.assign(std::make_move_iterator(items), std::make_move_iterator(items + count));
    std::destroy_n(items, count);  // moved from: nothing left to release
    storageChanged();
  }
};

}  // namespace pxkit::internal

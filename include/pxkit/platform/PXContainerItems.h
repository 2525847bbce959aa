// PXKit — the elements of an array or a dictionary (internal to both).
//
// Ordinary containers keep their elements in a vector. Those made by a factory
// that knows the final count (the immutable factories, copies, the JSON
// decoder) keep them right after the object, in its own allocation: one
// allocation per container instead of two. Readers see items[0, count) either
// way; only the containers themselves change which it is.
#pragma once

#include <cstddef>
#include <iterator>
#include <vector>

namespace pxkit::internal {

template <class Item>
struct ContainerItems {
  Item* items = nullptr;
  size_t count = 0;
  std::vector<Item> storage;  // unused while the items are kept with the object

  // After every change to `storage`.
  void storageChanged() noexcept {
    items = storage.data();
    count = storage.size();
  }
  // Before the first change to items kept with the object: they move to `storage`.
  void moveToStorage() {
    if (items == storage.data()) return;
    storage.assign(std::make_move_iterator(items), std::make_move_iterator(items + count));
    storageChanged();
  }
};

}  // namespace pxkit::internal

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

#include <cstddef>
#include <iterator>
#include <memory>
#include <new>
#include <utility>
#include <vector>

namespace pxkit::internal {

template <class Item>
struct ContainerItems {
  Item* items = nullptr;
  size_t count = 0;
  size_t room = 0;            // slots kept with the object (items[count, room) are free)
  std::vector<Item> storage;  // unused while the items are kept with the object

  bool keptWithObject() const noexcept { return items != storage.data(); }

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
    std::destroy_n(items, count);
    storageChanged();
  }
};

}  // namespace pxkit::internal

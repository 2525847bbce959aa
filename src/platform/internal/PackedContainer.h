// PXKit internal — arrays and dictionaries held in one allocation with their elements.
//
// An ordinary container is two allocations: the object, and the vector that
// holds its elements. The factories that know the final count up front (the
// immutable factories, copies, the JSON decoder) make a packed container
// instead: the elements follow the object in its own block, so making one and
// freeing it cost one allocation each, not two, and reading it touches one
// block. A packed container is its base class in every observable way (same
// class object, same behaviour, same mutability).
//
// A mutable one moves its elements into ordinary storage before its first
// change (moveItemsToStorage); the block keeps its now-empty slots until the
// container goes.
#pragma once

#include <pxkit/platform/PXRef.h>

#include <cstddef>
#include <memory>
#include <new>
#include <type_traits>

namespace pxkit::internal {

template <class Base, class Item>
class PackedContainer final : public Base {
 public:
  static_assert(std::is_nothrow_move_constructible_v<Item> && std::is_nothrow_copy_constructible_v<Item>);

  // A new container of `count` items, which `fill` constructs (without
  // throwing) in the slots it is given.
  template <class Fill>
  static PXRef<Base> make(size_t count, Fill&& fill) {
    void* block = ::operator new(sizeof(PackedContainer) + count * sizeof(Item));
    auto* container = ::new (block) PackedContainer(count);
    fill(container->slots());
    container->elements_.items = container->slots();
    container->elements_.count = count;
    return PXRef<Base>::adopt(container);
  }

  ~PackedContainer() override { std::destroy_n(slots(), packedCount_); }

  // The whole block goes, items included; every delete of a packed container
  // comes here through the virtual destructor.
  static void operator delete(void* block) noexcept { ::operator delete(block); }

 private:
  explicit PackedContainer(size_t count) noexcept : packedCount_(count) {}
  Item* slots() noexcept { return reinterpret_cast<Item*>(this + 1); }

  size_t packedCount_;  // slots in the block, whether or not they still hold the items
};

}  // namespace pxkit::internal

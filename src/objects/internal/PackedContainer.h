// PXKit internal — arrays and dictionaries held in one allocation with their elements.
//
// An ordinary container is two allocations: the object, and the vector that
// holds its elements. The factories that know the count up front (the
// immutable factories, copies, the JSON decoder, capacities) make a packed
// container instead: the elements follow the object in its own block, so making one and
// freeing it cost one allocation each, not two, and reading it touches one
// block. A packed container is its base class in every observable way (same
// class object, same behaviour, same mutability).
//
// A mutable one appends in place while it has room and otherwise moves its
// elements into ordinary storage (ContainerItems in PXContainerItems.h).
#pragma once

#include <pxkit/objects/PXRef.h>

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
  // throwing) in the slots it is given, with room for `room` >= `count`.
  template <class Fill>
  static PXRef<Base> make(size_t count, size_t room, Fill&& fill) {
    void* block = ::operator new(sizeof(PackedContainer) + room * sizeof(Item));
    auto* container = ::new (block) PackedContainer();
    fill(container->slots());
    container->elements_.items = container->slots();
    container->elements_.count = count;
    container->elements_.room = room;
    return PXRef<Base>::adopt(container);
  }

  // Items that moved to storage left their slots empty.
  ~PackedContainer() override {
    if (this->elements_.items == slots()) destroyItems(slots(), this->elements_.count);
  }

  // The whole block goes, items included; every delete of a packed container
  // comes here through the virtual destructor.
  static void operator delete(void* block) noexcept { ::operator delete(block); }

 private:
  PackedContainer() noexcept = default;
  Item* slots() noexcept { return reinterpret_cast<Item*>(this + 1); }
};

}  // namespace pxkit::internal

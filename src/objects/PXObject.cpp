#include <pxkit/objects/PXFormat.h>
#include <pxkit/objects/PXObject.h>

#include "objects/internal/ObjectExtras.h"

using pxkit::internal::Association;
using pxkit::internal::ObjectExtras;
using pxkit::internal::WeakControl;

// ---- Class ------------------------------------------------------------------

const PXClass& PXObject::classObject() {
  static const PXClass& cls =
      PXClass::registerClass("PXObject", nullptr, {}, [] { return PXMake<PXObject>(); });
  return cls;
}
[[maybe_unused]] static const PXClass& pxkit_registered_PXObject = PXObject::classObject();

// ---- Lifetime ---------------------------------------------------------------

PXObject::~PXObject() {
  ObjectExtras* extras = extras_.load(std::memory_order_acquire);
  if (!extras) return;
  // Associations go first, outside any lock: releasing one may run callbacks
  // (destruction blocks) that look at other objects.
  std::vector<Association> associations = std::move(extras->associations);
  associations.clear();
  extras->publishedObservation.store(nullptr, std::memory_order_relaxed);
  extras->observation.reset();
  if (WeakControl* weak = extras->weak.load(std::memory_order_acquire))
    pxkit::internal::weakControlRelease(weak);
  delete extras;
}

void PXObject::destroy() const noexcept {
  // Weak references must stop handing out the object before its memory goes.
  // A weak lock racing with us sees a zero count and fails.
  if (ObjectExtras* extras = extrasIfPresent()) {
    if (WeakControl* weak = extras->weak.load(std::memory_order_acquire)) {
      std::lock_guard lock(weak->mutex);
      weak->object = nullptr;
    }
  }
  delete this;
}

ObjectExtras& PXObject::extras() const {
  ObjectExtras* extras = extras_.load(std::memory_order_acquire);
  if (extras) return *extras;
  auto* made = new ObjectExtras;
  if (extras_.compare_exchange_strong(extras, made, std::memory_order_acq_rel, std::memory_order_acquire))
    return *made;
  delete made;  // another thread won; `extras` now holds its storage
  return *extras;
}

ObjectExtras& pxkit::internal::extrasOf(const PXObject& object) {
  return object.extras();
}
ObjectExtras* pxkit::internal::extrasIfPresent(const PXObject& object) noexcept {
  return object.extrasIfPresent();
}

// ---- Weak references --------------------------------------------------------

WeakControl* pxkit::internal::weakControlFor(const PXObject* object) {
  ObjectExtras& extras = object->extras();
  WeakControl* weak = extras.weak.load(std::memory_order_acquire);
  if (!weak) {
    auto* made = new WeakControl;
    made->object = const_cast<PXObject*>(object);
    if (extras.weak.compare_exchange_strong(weak, made, std::memory_order_acq_rel,
                                            std::memory_order_acquire)) {
      weak = made;
    } else {
      delete made;
    }
  }
  weakControlRetain(weak);
  return weak;
}

PXObject* pxkit::internal::weakControlLock(WeakControl* control) noexcept {
  std::lock_guard lock(control->mutex);
  PXObject* object = control->object;
  if (!object) return nullptr;
  uint32_t count = object->refs_.load(std::memory_order_relaxed);
  while (count != 0) {
    if (object->refs_.compare_exchange_weak(count, count + 1, std::memory_order_acq_rel,
                                            std::memory_order_relaxed)) {
      return object;
    }
  }
  return nullptr;  // its last owner is destroying it right now
}

void pxkit::internal::weakControlRetain(WeakControl* control) noexcept {
  control->refs.fetch_add(1, std::memory_order_relaxed);
}

void pxkit::internal::weakControlRelease(WeakControl* control) noexcept {
  if (control->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) delete control;
}

// ---- Identity and text ------------------------------------------------------

PXString PXObject::description() const {
  return PXFormat("<%s: %p>", pxClass().name().c_str(), this);
}

PXRef<PXObject> PXObject::copy() const {
  return PXRef<PXObject>(const_cast<PXObject*>(this));
}

PXRef<PXObject> PXObject::mutableCopy() const {
  return {};
}

// ---- Monitor ----------------------------------------------------------------

PXMonitor& PXObject::monitor() const {
  return extras().monitor;
}

// ---- Associated objects -----------------------------------------------------

void PXObject::setAssociatedObject(const void* key, const PXValue& value, PXAssociationPolicy policy) {
  Association replaced;  // released after the lock is dropped
  Association next{key, {}, nullptr};
  if (value) {
    switch (policy) {
      case PXAssociationPolicy::Assign:
        if (value.isObject() || value.isData()) {
          next.assigned = value.objectPointer();
        } else {
          next.value = value;  // scalars and strings are values: nothing to leave unowned
        }
        break;
      case PXAssociationPolicy::Retain:
        next.value = value;
        break;
      case PXAssociationPolicy::Copy:
        next.value = value.copy();
        break;
    }
  }
  ObjectExtras& extras = this->extras();
  std::lock_guard lock(extras.mutex);
  auto& list = extras.associations;
  for (auto it = list.begin(); it != list.end(); ++it) {
    if (it->key != key) continue;
    replaced = std::move(*it);
    if (value) {
      *it = std::move(next);
    } else {
      list.erase(it);
    }
    return;
  }
  if (value) list.push_back(std::move(next));
}

PXValue PXObject::associatedObject(const void* key) const {
  ObjectExtras* extras = extrasIfPresent();
  if (!extras) return {};
  std::lock_guard lock(extras->mutex);
  for (const Association& association : extras->associations) {
    if (association.key != key) continue;
    if (association.assigned) return PXValue(PXRef<PXObject>(association.assigned));
    return association.value;
  }
  return {};
}

void PXObject::removeAssociatedObjects() {
  ObjectExtras* extras = extrasIfPresent();
  if (!extras) return;
  std::vector<Association> removed;
  {
    std::lock_guard lock(extras->mutex);
    removed.swap(extras->associations);
  }
}

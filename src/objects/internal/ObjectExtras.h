// Per-object side storage, allocated on first use.
//
// A PXObject is a vtable, a count and one pointer; everything an object needs
// only sometimes (its monitor, associated objects, weak-reference control,
// observation state) lives here, made the first time it is asked for.
#pragma once

#include <pxkit/objects/PXObject.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace pxkit::internal {

// Shared by an object and its weak references; outlives the object while any
// weak reference remains. `object` is cleared, under `mutex`, before the object
// is deleted; a weak lock only succeeds while the count is still above zero.
struct WeakControl {
  std::atomic<uint32_t> refs{1};  // one for the object, one per weak reference
  std::mutex mutex;
  PXObject* object = nullptr;
};

// Key-value observing keeps its registrations here (defined with the observing code).
struct ObservationState {
  virtual ~ObservationState() = default;
};

struct Association {
  const void* key = nullptr;
  PXValue value;                 // strong (retain, copy) or scalar values
  PXObject* assigned = nullptr;  // assign policy: no count held
};

struct ObjectExtras {
  PXMonitor monitor;
  std::mutex mutex;  // guards associations, weak and observation creation
  std::vector<Association> associations;
  std::atomic<WeakControl*> weak{nullptr};
  std::unique_ptr<ObservationState> observation;
  // The same state, published once made, so that announcing a change of an
  // object nobody observes costs one load and no lock.
  std::atomic<ObservationState*> publishedObservation{nullptr};
};

// The observation state kept in `extras`, created on first use (under the extras mutex).
template <class State>
State& observationState(ObjectExtras& extras) {
  std::lock_guard lock(extras.mutex);
  if (!extras.observation) {
    extras.observation = std::make_unique<State>();
    extras.publishedObservation.store(extras.observation.get(), std::memory_order_release);
  }
  return static_cast<State&>(*extras.observation);
}

// Access for the observing code, which needs the extras of any object.
PXKIT_EXPORT ObjectExtras& extrasOf(const PXObject& object);
PXKIT_EXPORT ObjectExtras* extrasIfPresent(const PXObject& object) noexcept;

}  // namespace pxkit::internal

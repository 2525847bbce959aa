// Key-value observing: the per-object bookkeeping.
//
// One registration (addObserver) is owned by the object it was registered on,
// its root. A registration of "a.b.c" places a hook on every object along the
// path: on the root for "a", on root.a for "b", on root.a.b for "c". A change
// announced on any of them (willChangeValueForKey / didChangeValueForKey)
// reaches the registration through its hook; when the changed key is not the
// last one, the registration walks the path again from the root and moves its
// hooks from the objects that left the path to the ones that joined it.
//
// Lifetimes, so that no side can outlive what it points to:
//  - the root's ObservationInfo owns its registrations (shared_ptr); hooks on
//    other objects only name them (weak_ptr), so a hook never keeps a removed
//    registration alive and a dying object never reaches into a freed one;
//  - a registration holds the root, the observer and the objects on its path by
//    weak reference: an object on the path that has been destroyed is skipped,
//    and an observer that was destroyed without removing itself is not called.
//
// Locks: `ObservationInfo::mutex` guards one object's hooks and registrations;
// `Registration::chainMutex` guards one registration's path. The order is
// chainMutex, then an object's mutex; nothing takes them the other way round.
// Neither is held while an observer is called or a value is read (getters are
// user code and may take their own locks), and objects that might be released
// while a lock is held are kept alive until it has been dropped.
#pragma once

#include <pxkit/objects/PXObject.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "objects/internal/ObjectExtras.h"

namespace pxkit::internal {

struct ObservationRegistration;

// Where a registration passes through an object: the key observed on it and
// the key's position in the registration's path.
struct ObservationHook {
  std::string key;
  size_t depth = 0;
  const ObservationRegistration* id = nullptr;  // identity only
  std::weak_ptr<ObservationRegistration> registration;
};

// One object on a registration's path.
struct ObservationLink {
  PXObject* object = nullptr;  // identity only
  PXWeakRef<PXObject> weak;
};

struct ObservationRegistration {
  PXObject* rootPointer = nullptr;  // identity only
  PXWeakRef<PXObject> root;
  PXObject* observerPointer = nullptr;  // identity only (removeObserver)
  PXWeakRef<PXObject> observer;
  PXString keyPath;
  std::vector<std::string> keys;  // keyPath split at the dots
  unsigned options = 0;
  void* context = nullptr;

  std::atomic<bool> active{true};  // false once removed: no further calls
  // Re-walks of the path are numbered when they start; an older walk never
  // replaces the result of a newer one (two threads replacing intermediates).
  std::atomic<uint64_t> walksStarted{0};

  std::mutex chainMutex;
  uint64_t installedWalk = 0;          // guarded by chainMutex
  std::vector<ObservationLink> chain;  // guarded by chainMutex; chain[i] carries the hook for keys[i]
};

struct ObservationInfo final : ObservationState {
  std::mutex mutex;
  std::vector<ObservationHook> hooks;                                   // guarded by mutex
  std::vector<std::shared_ptr<ObservationRegistration>> registrations;  // rooted here; guarded by mutex

  // Runs while the object is being destroyed: unhooks its registrations from
  // the other objects on their paths.
  ~ObservationInfo() override;
};

// For tests: how many live hooks `object` carries (registrations passing through it).
size_t observationHookCount(const PXObject& object);

}  // namespace pxkit::internal

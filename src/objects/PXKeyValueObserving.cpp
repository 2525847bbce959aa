// Key-value observing over key paths. See internal/ObservationInfo.h for the
// bookkeeping and its locking rules.
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXException.h>
#include <pxkit/objects/PXObject.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "objects/internal/ObservationInfo.h"

const char* const kPXKeyValueChangeKindKey = "kind";
const char* const kPXKeyValueChangeNewKey = "new";
const char* const kPXKeyValueChangeOldKey = "old";
const char* const kPXKeyValueChangeNotificationIsPriorKey = "notificationIsPrior";

using pxkit::internal::ObjectExtras;
using pxkit::internal::ObservationHook;
using pxkit::internal::ObservationInfo;
using pxkit::internal::ObservationLink;
using pxkit::internal::ObservationRegistration;

namespace {

using RegistrationRef = std::shared_ptr<ObservationRegistration>;

// ---- Reaching an object's bookkeeping ---------------------------------------

ObservationInfo* infoIfPresent(const PXObject& object) {
  ObjectExtras* extras = pxkit::internal::extrasIfPresent(object);
  if (!extras) return nullptr;
  // Published once, after it is made, and kept until the object goes.
  return static_cast<ObservationInfo*>(extras->publishedObservation.load(std::memory_order_acquire));
}

ObservationInfo& infoFor(const PXObject& object) {
  return pxkit::internal::observationState<ObservationInfo>(pxkit::internal::extrasOf(object));
}

// ---- Values -----------------------------------------------------------------

// The one place where observing meets key-value coding: the value at
// `keyPath` (or of the single `key`), read through the lookup that does not
// raise, so a key the object does not know reads as absent. A host's override
// that raises anyway (another exception of the kit) is contained the same way:
// observing never raises on behalf of a setter that is only announcing its change.
template <class Lookup>
PXValue readObservedValue(Lookup&& lookup) {
  PXValue value;
  try {
    (void)lookup(&value);  // found, absent or an undefined key: `value` holds the answer or nothing
  } catch (const PXException&) {
    return {};
  }
  return value;
}

PXValue observedValue(const PXObject& object, std::string_view keyPath) {
  return readObservedValue([&](PXValue* out) { return object.lookupValueForKeyPath(keyPath, out); });
}

PXValue orNull(const PXValue& value) {
  return value ? value : PXValue::null();
}

PXRef<PXDictionary> makeChange(const PXValue* newValue, const PXValue* oldValue, bool prior) {
  std::vector<PXDictionary::Entry> entries;
  entries.reserve(4);
  entries.emplace_back(kPXKeyValueChangeKindKey, kPXKeyValueChangeSetting);
  if (newValue) entries.emplace_back(kPXKeyValueChangeNewKey, orNull(*newValue));
  if (oldValue) entries.emplace_back(kPXKeyValueChangeOldKey, orNull(*oldValue));
  if (prior) entries.emplace_back(kPXKeyValueChangeNotificationIsPriorKey, true);
  return PXDictionary::dictionaryWithEntries(std::move(entries));
}

std::vector<std::string> splitKeyPath(std::string_view keyPath) {
  std::vector<std::string> keys;
  size_t start = 0;
  for (;;) {
    size_t dot = keyPath.find('.', start);
    keys.emplace_back(
        keyPath.substr(start, dot == std::string_view::npos ? std::string_view::npos : dot - start));
    if (dot == std::string_view::npos) break;
    start = dot + 1;
  }
  return keys;
}

// ---- Hooks ------------------------------------------------------------------

void addHook(const PXObject& object, const RegistrationRef& registration, size_t depth) {
  ObservationInfo& info = infoFor(object);
  std::lock_guard lock(info.mutex);
  std::erase_if(info.hooks, [](const ObservationHook& hook) { return hook.registration.expired(); });
  info.hooks.push_back({registration->keys[depth], depth, registration.get(), registration});
}

void removeHook(const PXObject& object, const ObservationRegistration* registration, size_t depth) {
  ObservationInfo* info = infoIfPresent(object);
  if (!info) return;
  std::lock_guard lock(info->mutex);
  auto it = std::find_if(info->hooks.begin(), info->hooks.end(), [&](const ObservationHook& hook) {
    return hook.id == registration && hook.depth == depth;
  });
  if (it != info->hooks.end()) info->hooks.erase(it);
}

// Walks the registration's path from the root and moves its hooks to the
// objects now on it. Values are read without any lock held; the result is
// installed only if no walk that started later has installed its own.
void rewalk(const RegistrationRef& registration, const PXObject& root) {
  uint64_t walk = registration->walksStarted.fetch_add(1, std::memory_order_acq_rel) + 1;
  std::vector<PXRef<PXObject>> objects;
  objects.emplace_back(const_cast<PXObject*>(&root));
  const auto& keys = registration->keys;
  for (size_t i = 0; i + 1 < keys.size(); ++i) {
    // A key the object does not know ends the path here, as an absent value does.
    PXValue value =
        readObservedValue([&](PXValue* out) { return objects.back()->lookupValueForKey(keys[i], out); });
    if (!value.isObject()) break;
    objects.push_back(value.objectValue());
  }

  std::vector<PXRef<PXObject>> released;  // dropped after the lock below
  std::lock_guard lock(registration->chainMutex);
  if (!registration->active.load(std::memory_order_acquire) || walk < registration->installedWalk) return;
  registration->installedWalk = walk;
  auto& chain = registration->chain;
  size_t depthCount = std::max(chain.size(), objects.size());
  std::vector<ObservationLink> next(objects.size());
  for (size_t depth = 0; depth < depthCount; ++depth) {
    PXObject* before = depth < chain.size() ? chain[depth].object : nullptr;
    PXObject* after = depth < objects.size() ? objects[depth].get() : nullptr;
    if (depth < objects.size()) {
      next[depth].object = after;
      next[depth].weak = before == after ? std::move(chain[depth].weak) : PXWeakRef<PXObject>(after);
    }
    if (before == after) continue;
    if (before) {
      if (PXRef<PXObject> old = chain[depth].weak.lock()) {
        removeHook(*old, registration.get(), depth);
        released.push_back(std::move(old));
      }
    }
    if (after) addHook(*after, registration, depth);
  }
  chain = std::move(next);
}

// Ends a registration: no further calls, hooks removed from every object still alive.
void detach(const RegistrationRef& registration) {
  std::vector<PXRef<PXObject>> released;  // dropped after the lock below
  std::lock_guard lock(registration->chainMutex);
  registration->active.store(false, std::memory_order_release);
  for (size_t depth = 0; depth < registration->chain.size(); ++depth) {
    if (PXRef<PXObject> object = registration->chain[depth].weak.lock()) {
      removeHook(*object, registration.get(), depth);
      released.push_back(std::move(object));
    }
  }
  registration->chain.clear();
}

void notify(const ObservationRegistration& registration, PXObject& root, const PXDictionary& change) {
  PXRef<PXObject> observer = registration.observer.lock();
  if (!observer || !registration.active.load(std::memory_order_acquire)) return;
  observer->observeValueForKeyPath(registration.keyPath, &root, change, registration.context);
}

// ---- Changes in progress ----------------------------------------------------

// One registration told of a change at will-time, with the path's old value.
struct PendingObserver {
  RegistrationRef registration;
  size_t depth = 0;
  PXValue oldValue;
};

// A change announced with willChangeValueForKey whose didChangeValueForKey has
// not come yet. Kept per thread: a will/did pair belongs to the thread that
// makes the change, and nested pairs for the same key notify once, at the
// outermost did, with the value from the outermost will.
struct PendingChange {
  const PXObject* object = nullptr;
  std::string key;
  int nesting = 1;
  std::vector<PendingObserver> observers;
};

thread_local std::vector<PendingChange> tPendingChanges;

std::vector<PendingChange>::iterator findPending(const PXObject* object, std::string_view key) {
  auto& pending = tPendingChanges;
  for (auto it = pending.end(); it != pending.begin();) {
    --it;
    if (it->object == object && it->key == key) return it;
  }
  return pending.end();
}

// The registrations hooked on `object` for `key`, once each (a path that loops
// back through an object hooks it twice: the shallower hook wins).
std::vector<PendingObserver> observersOf(const PXObject& object, std::string_view key) {
  std::vector<PendingObserver> found;
  ObservationInfo* info = infoIfPresent(object);
  if (!info) return found;
  std::lock_guard lock(info->mutex);
  for (const ObservationHook& hook : info->hooks) {
    if (hook.key != key) continue;
    RegistrationRef registration = hook.registration.lock();
    if (!registration || !registration->active.load(std::memory_order_acquire)) continue;
    auto same = std::find_if(found.begin(), found.end(),
                             [&](const PendingObserver& p) { return p.registration == registration; });
    if (same == found.end()) {
      found.push_back({std::move(registration), hook.depth, {}});
    } else {
      same->depth = std::min(same->depth, hook.depth);
    }
  }
  return found;
}

}  // namespace

// ---- Registration -------------------------------------------------------------

size_t pxkit::internal::observationHookCount(const PXObject& object) {
  ObservationInfo* info = infoIfPresent(object);
  if (!info) return 0;
  std::lock_guard lock(info->mutex);
  return static_cast<size_t>(
      std::count_if(info->hooks.begin(), info->hooks.end(),
                    [](const ObservationHook& h) { return !h.registration.expired(); }));
}

ObservationInfo::~ObservationInfo() {
  // The object is being destroyed: nothing can add to these lists any more.
  std::vector<RegistrationRef> owned = std::move(registrations);
  for (const RegistrationRef& registration : owned) detach(registration);
}

void PXObject::addObserver(PXObject* observer, std::string_view keyPath, unsigned options, void* context) {
  if (!observer) return;
  auto registration = std::make_shared<ObservationRegistration>();
  registration->rootPointer = this;
  registration->root = PXWeakRef<PXObject>(this);
  registration->observerPointer = observer;
  registration->observer = PXWeakRef<PXObject>(observer);
  registration->keyPath = PXString(keyPath);
  registration->keys = splitKeyPath(keyPath);
  registration->options = options;
  registration->context = context;

  ObservationInfo& info = infoFor(*this);
  std::vector<RegistrationRef> orphans;
  {
    std::lock_guard lock(info.mutex);
    // Registrations whose observer was destroyed without removing itself are
    // never called again; drop them here rather than let them pile up.
    std::erase_if(info.registrations, [&](RegistrationRef& r) {
      if (!r->observer.expired()) return false;
      orphans.push_back(std::move(r));
      return true;
    });
    info.registrations.push_back(registration);
  }
  for (const RegistrationRef& orphan : orphans) detach(orphan);
  rewalk(registration, *this);

  if (options & PXKeyValueObservingOptionInitial) {
    PXValue current;
    if (options & PXKeyValueObservingOptionNew) current = observedValue(*this, keyPath);
    PXRef<PXDictionary> change =
        makeChange((options & PXKeyValueObservingOptionNew) ? &current : nullptr, nullptr, /*prior=*/false);
    if (registration->active.load(std::memory_order_acquire)) {
      observer->observeValueForKeyPath(registration->keyPath, this, *change, context);
    }
  }
}

void PXObject::removeObserver(PXObject* observer, std::string_view keyPath, void* context) {
  ObservationInfo* info = infoIfPresent(*this);
  if (!info) return;
  RegistrationRef removed;
  {
    std::lock_guard lock(info->mutex);
    auto& list = info->registrations;
    for (auto it = list.end(); it != list.begin();) {
      --it;
      const ObservationRegistration& r = **it;
      if (r.observerPointer == observer && r.keyPath == keyPath && (!context || r.context == context)) {
        removed = std::move(*it);
        list.erase(it);
        break;
      }
    }
  }
  // Quietly nothing when there was no such registration.
  if (removed) detach(removed);
}

void PXObject::observeValueForKeyPath(const PXString&, PXObject*, const PXDictionary&, void*) {}

// ---- Announcing changes ---------------------------------------------------------

void PXObject::willChangeValueForKey(std::string_view key) {
  if (auto it = findPending(this, key); it != tPendingChanges.end()) {
    ++it->nesting;
    return;
  }
  std::vector<PendingObserver> observers = observersOf(*this, key);
  if (observers.empty()) return;

  std::vector<std::pair<RegistrationRef, PXRef<PXObject>>> priors;
  for (PendingObserver& pending : observers) {
    const ObservationRegistration& r = *pending.registration;
    if (!(r.options & (PXKeyValueObservingOptionOld | PXKeyValueObservingOptionPrior))) continue;
    PXRef<PXObject> root = r.root.lock();
    if (!root) continue;
    if (r.options & PXKeyValueObservingOptionOld) pending.oldValue = observedValue(*root, r.keyPath);
    if (r.options & PXKeyValueObservingOptionPrior)
      priors.emplace_back(pending.registration, std::move(root));
  }
  // Recorded before any observer runs, so that a change the prior observers
  // make to the same key nests inside this one.
  tPendingChanges.push_back({this, std::string(key), 1, observers});

  for (auto& [registration, root] : priors) {
    bool withOld = registration->options & PXKeyValueObservingOptionOld;
    const PXValue* old = nullptr;
    for (const PendingObserver& p : observers) {
      if (p.registration == registration) old = &p.oldValue;
    }
    PXRef<PXDictionary> change = makeChange(nullptr, withOld ? old : nullptr, /*prior=*/true);
    try {
      notify(*registration, *root, *change);
    } catch (...) {
      // The change will not be completed: forget it, or this thread would
      // treat every later change of the key as nested inside it.
      if (auto it = findPending(this, key); it != tPendingChanges.end()) tPendingChanges.erase(it);
      throw;
    }
  }
}

void PXObject::didChangeValueForKey(std::string_view key) {
  auto& pending = tPendingChanges;
  if (pending.empty()) return;
  auto it = findPending(this, key);
  if (it == pending.end()) return;
  if (--it->nesting > 0) return;
  std::vector<PendingObserver> observers = std::move(it->observers);
  pending.erase(it);

  for (PendingObserver& p : observers) {
    ObservationRegistration& r = *p.registration;
    // Removed meanwhile, perhaps by an earlier observer of this change.
    if (!r.active.load(std::memory_order_acquire)) continue;
    PXRef<PXObject> root = r.root.lock();
    if (!root) continue;
    // An object on the path was replaced: follow the path to its new objects.
    if (p.depth + 1 < r.keys.size()) rewalk(p.registration, *root);
    PXValue newValue;
    if (r.options & PXKeyValueObservingOptionNew) newValue = observedValue(*root, r.keyPath);
    PXRef<PXDictionary> change =
        makeChange((r.options & PXKeyValueObservingOptionNew) ? &newValue : nullptr,
                   (r.options & PXKeyValueObservingOptionOld) ? &p.oldValue : nullptr,
                   /*prior=*/false);
    notify(r, *root, *change);
  }
}

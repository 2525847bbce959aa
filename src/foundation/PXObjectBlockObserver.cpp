// Key-value observing delivered to callbacks: trampolines and their bookkeeping.
#include <pxkit/foundation/PXObjectBlockObserver.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/platform/PXDispatchQueue.h>
#include <pxkit/platform/PXLog.h>

#include <utility>
#include <vector>

const char* const kPXObjectBlockObserverArrayKey = "kPXObjectBlockObserverArrayKey";

PX_DEFINE_CLASS(PXObjectBlockObserverTrampoline, PXObject,
                [](PXClassBuilder<PXObjectBlockObserverTrampoline>& c) {
                  c.computed("keyPath", &PXObjectBlockObserverTrampoline::keyPath,
                             &PXObjectBlockObserverTrampoline::setKeyPath, PXPropertyOwnership::Copy);
                  c.computed("options", [](const PXObjectBlockObserverTrampoline& t) {
                    return static_cast<uint64_t>(t.options());
                  });
                  c.computed("observing", &PXObjectBlockObserverTrampoline::isObserving);
                })

namespace {

using Token = PXRef<PXObjectBlockObserverTrampoline>;

// The one queue that serialises every change to observation arrays. Made on
// first use and never destroyed (observations may be removed from static
// destructors).
PXDispatchQueue& bookkeepingQueue() {
  static PXDispatchQueue* queue = PXDispatchQueue::create("org.pxkit.object-block-observer").detach();
  return *queue;
}

// Runs `job` on the bookkeeping queue and waits for it. Releasing an object
// inside a job can run arbitrary destruction code (and with it another
// removal); such a nested call runs at once instead of waiting on itself.
template <class F>
void onBookkeepingQueue(F&& job) {
  PXDispatchQueue& queue = bookkeepingQueue();
  if (queue.isCurrent()) {
    job();
  } else {
    queue.sync(job);
  }
}

// The object's observation array, if it has one. Only touched on the queue.
PXRef<PXMutableArray> observationArray(const PXObject& object) {
  return object.associatedObject(kPXObjectBlockObserverArrayKey).mutableArrayValue();
}

// Removes the entries of `array` picked by `take`, in order, and hands them
// back; drops the array's association once it is empty.
template <class Take>
std::vector<Token> takeFromArray(PXObject& object, PXMutableArray& array, Take&& take) {
  std::vector<Token> taken;
  std::vector<PXValue> kept;
  kept.reserve(array.count());
  for (const PXValue& value : array) {
    auto* trampoline = static_cast<PXObjectBlockObserverTrampoline*>(value.objectPointer());
    if (trampoline && take(*trampoline)) {
      taken.emplace_back(trampoline);
    } else {
      kept.push_back(value);
    }
  }
  array.setArray(std::move(kept));
  if (array.count() == 0)
    object.setAssociatedObject(kPXObjectBlockObserverArrayKey, PXValue(), PXAssociationPolicy::Retain);
  return taken;
}

}  // namespace

// ---- Trampoline ---------------------------------------------------------------

PXObjectBlockObserverTrampoline::PXObjectBlockObserverTrampoline(PXObject& observedObject, PXString keyPath,
                                                                 unsigned options, PXObject* owner,
                                                                 PXObjectBlockObserverBlock block)
    : observed_(&observedObject),
      owner_(owner),
      options_(options),
      keyPath_(std::move(keyPath)),
      block_(std::move(block)) {}

PXObjectBlockObserverTrampoline::~PXObjectBlockObserverTrampoline() {
  removeObserverBlock();
}

PXString PXObjectBlockObserverTrampoline::keyPath() const {
  std::lock_guard lock(propertyMutex_);
  return keyPath_;
}

void PXObjectBlockObserverTrampoline::setKeyPath(PXString keyPath) {
  std::lock_guard lock(propertyMutex_);
  keyPath_ = std::move(keyPath);
}

PXObjectBlockObserverBlock PXObjectBlockObserverTrampoline::block() const {
  std::lock_guard lock(propertyMutex_);
  return block_;
}

void PXObjectBlockObserverTrampoline::setBlock(PXObjectBlockObserverBlock block) {
  PXObjectBlockObserverBlock replaced;  // destroyed after the lock
  std::lock_guard lock(propertyMutex_);
  replaced = std::exchange(block_, std::move(block));
}

bool PXObjectBlockObserverTrampoline::isObserving() const {
  std::lock_guard lock(registrationMutex_);
  return observing_;
}

void PXObjectBlockObserverTrampoline::addObserverBlock() {
  std::lock_guard lock(registrationMutex_);
  if (!addArmed_) return;
  addArmed_ = false;
  if (observing_) return;
  PXRef<PXObject> observed = observed_.lock();
  if (!observed) return;
  observing_ = true;
  removeArmed_ = true;
  registeredKeyPath_ = keyPath();
  observed->addObserver(this, registeredKeyPath_, options_, this);
}

void PXObjectBlockObserverTrampoline::removeObserverBlock() {
  std::lock_guard lock(registrationMutex_);
  if (!removeArmed_) return;
  removeArmed_ = false;
  if (!observing_) return;
  observing_ = false;
  addArmed_ = true;
  // An object being destroyed can no longer be reached; its registrations end with it.
  if (PXRef<PXObject> observed = observed_.lock()) observed->removeObserver(this, registeredKeyPath_, this);
}

void PXObjectBlockObserverTrampoline::observeValueForKeyPath(const PXString& keyPath, PXObject* object,
                                                             const PXDictionary& change, void* context) {
  if (context != this) {
    PXObject::observeValueForKeyPath(keyPath, object, change, context);
    return;
  }
  if (PXObjectBlockObserverBlock callback = block()) callback(object, keyPath, change, owner_);
}

// ---- Observing with callbacks ---------------------------------------------------

PXRef<PXObjectBlockObserverTrampoline> PXObjectBlockObserver::addObserverForKeyPath(
    PXObject& object, std::string_view keyPath, unsigned options, PXObject* owner,
    PXObjectBlockObserverBlock block) {
  auto trampoline =
      PXMake<PXObjectBlockObserverTrampoline>(object, PXString(keyPath), options, owner, std::move(block));
  trampoline->addObserverBlock();
  onBookkeepingQueue([&] {
    PXRef<PXMutableArray> array = observationArray(object);
    if (!array) {
      array = PXMutableArray::array();
      object.setAssociatedObject(kPXObjectBlockObserverArrayKey, array, PXAssociationPolicy::Retain);
    }
    array->addObject(trampoline);
  });
  return trampoline;
}

void PXObjectBlockObserver::removeObserverWithObserverBlockToken(
    PXObject& object, const PXRef<PXObjectBlockObserverTrampoline>& token) {
  // Filled on the queue, released after it: destroying a trampoline releases
  // its callback and whatever the callback holds.
  std::vector<Token> removed;
  bool found = false;
  const char* operation = __func__;
  onBookkeepingQueue([&] {
    PXRef<PXMutableArray> array = observationArray(object);
    if (array && token) {
      removed = takeFromArray(object, *array, [&](const PXObjectBlockObserverTrampoline& t) {
        if (found || &t != token.get()) return false;
        found = true;
        return true;
      });
    }
    if (!found) {
      PXLog("%s: attempt to remove non-existing %p from %@", operation, static_cast<const void*>(token.get()),
            PXRef<PXObject>(&object));
    }
    for (const Token& t : removed) t->removeObserverBlock();
  });
}

void PXObjectBlockObserver::removeObjectBlockObserversWithOwner(PXObject& object, const PXObject* owner,
                                                                const PXString& keyPath) {
  std::vector<Token> removed;  // released after the queue, as above
  onBookkeepingQueue([&] {
    PXRef<PXMutableArray> array = observationArray(object);
    if (!array) return;
    removed = takeFromArray(object, *array, [&](const PXObjectBlockObserverTrampoline& t) {
      return t.owner() == owner && (!keyPath || t.keyPath() == keyPath);
    });
    for (const Token& t : removed) t->removeObserverBlock();
  });
}

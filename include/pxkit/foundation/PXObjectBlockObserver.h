// PXKit — PXObjectBlockObserver: key-value observing delivered to a callback.
//
// Instead of implementing observeValueForKeyPath, a caller hands a callback
// and gets a token back. The observed object keeps its observations (the
// trampolines) in an array associated with it, so they live exactly as long
// as the object unless they are removed earlier, by token or by owner.
//
//   auto token = PXObjectBlockObserver::addObserverForKeyPath(
//       *monitor, "networkAvailable", PXKeyValueObservingOptionNew | PXKeyValueObservingOptionOld,
//       /*owner=*/tracker.get(),
//       [](PXObject* observed, const PXString& keyPath, const PXDictionary& change, PXObject* owner) {
//         static_cast<PXMetricsTracker*>(owner)->considerAutoSubmission();
//       });
//   ...
//   PXObjectBlockObserver::removeObserverWithObserverBlockToken(*monitor, token);
//   // or, for everything the tracker registered on the monitor under one key path:
//   PXObjectBlockObserver::removeObjectBlockObserversWithOwner(*monitor, tracker.get(), "networkAvailable");
//
// Thread safety: observations may be added and removed from any thread; the
// bookkeeping of all block observers is serialised on one queue of the kit
// ("org.pxkit.object-block-observer"), synchronously. Callbacks run on the
// thread that changes the observed value. A callback may still be running on
// another thread when a removal returns; it is never started after it.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXObject.h>
#include <pxkit/objects/PXString.h>

#include <functional>
#include <mutex>
#include <string_view>

// The callback: the observed object, the observed key path, the change
// dictionary ("kind", and "new", "old", "notificationIsPrior" as the options
// ask) and the owner given at registration.
using PXObjectBlockObserverBlock = std::function<void(PXObject* observedObject, const PXString& keyPath,
                                                      const PXDictionary& change, PXObject* owner)>;

// The association key under which an object keeps its array of observations.
PXKIT_EXPORT extern const char* const kPXObjectBlockObserverArrayKey;  // "kPXObjectBlockObserverArrayKey"

// One registered observation; the token of PXObjectBlockObserver.
class PXKIT_EXPORT PXObjectBlockObserverTrampoline : public PXObject {
  PX_DECLARE_CLASS(PXObjectBlockObserverTrampoline)

 public:
  // A trampoline that is not observing yet (see addObserverBlock). Neither the
  // observed object nor the owner is retained; the callback is copied.
  PXObjectBlockObserverTrampoline(PXObject& observedObject, PXString keyPath, unsigned options,
                                  PXObject* owner, PXObjectBlockObserverBlock block);
  // Stops observing first.
  ~PXObjectBlockObserverTrampoline() override;

  // The observed object, or empty once it has been destroyed.
  PXRef<PXObject> observedObject() const { return observed_.lock(); }
  // For bulk removal; compared by identity, never dereferenced by the kit.
  PXObject* owner() const noexcept { return owner_; }
  unsigned options() const noexcept { return options_; }
  // Atomic properties. A new key path applies from the next addObserverBlock.
  PXString keyPath() const;
  void setKeyPath(PXString keyPath);
  PXObjectBlockObserverBlock block() const;
  void setBlock(PXObjectBlockObserverBlock block);
  bool isObserving() const;

  // Registers this trampoline as observer of the key path, once per cycle: a
  // second call does nothing until removeObserverBlock has run.
  void addObserverBlock();
  // Unregisters it, once per cycle: a second call does nothing until
  // addObserverBlock has run again.
  void removeObserverBlock();

  // Calls the callback when the notification is this trampoline's own.
  void observeValueForKeyPath(const PXString& keyPath, PXObject* object, const PXDictionary& change,
                              void* context) override;

 private:
  PXWeakRef<PXObject> observed_;
  PXObject* owner_;
  const unsigned options_;

  mutable std::mutex propertyMutex_;  // keyPath_ and block_
  PXString keyPath_;
  PXObjectBlockObserverBlock block_;

  // Registering and unregistering, with their once-per-cycle guards. Recursive:
  // an initial notification runs inside addObserverBlock and may stop it.
  mutable std::recursive_mutex registrationMutex_;
  bool observing_ = false;
  bool addArmed_ = true;
  bool removeArmed_ = true;
  PXString registeredKeyPath_;
};

namespace PXObjectBlockObserver {

// Observes `keyPath` of `object` with `options` (PXKeyValueObservingOptions)
// and calls `block` on every notification; with the initial option the
// callback runs once before this returns. Returns the token once observation
// has begun; the object's array owns the observation, so dropping the token
// does not end it.
PXKIT_EXPORT PXRef<PXObjectBlockObserverTrampoline> addObserverForKeyPath(PXObject& object,
                                                                          std::string_view keyPath,
                                                                          unsigned options, PXObject* owner,
                                                                          PXObjectBlockObserverBlock block);
// Ends the observation `token` of `object`. A token that is not (or no
// longer) one of the object's observations changes nothing and logs
// "removeObserverWithObserverBlockToken: attempt to remove non-existing <token> from <object>".
PXKIT_EXPORT void removeObserverWithObserverBlockToken(PXObject& object,
                                                       const PXRef<PXObjectBlockObserverTrampoline>& token);
// Ends every observation of `object` registered with `owner` (by identity)
// for `keyPath`, or for any key path when `keyPath` is absent. Other owners'
// observations are untouched.
PXKIT_EXPORT void removeObjectBlockObserversWithOwner(PXObject& object, const PXObject* owner,
                                                      const PXString& keyPath = {});

}  // namespace PXObjectBlockObserver

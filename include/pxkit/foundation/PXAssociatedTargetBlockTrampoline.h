// PXKit — PXAssociatedTargetBlockTrampoline: callbacks as target/action, and
// callbacks run when an object is destroyed.
//
// A trampoline carries two callbacks: an invocation callback, run by
// invoke(sender) (so a trampoline can stand where a target and action are
// expected: timers, notification centres), and a dealloc callback, run with
// the trampoline when the trampoline is destroyed. Attached to an object as an
// associated object, the dealloc callback runs when that object goes away.
//
//   PXString token = PXAssociatedTargetBlockTrampoline::addDeallocBlock(*tracker, [](PXObject* gone) {
//     PXNotificationCenter::defaultCenter()->removeObserver(gone);
//   });
//   ...
//   PXAssociatedTargetBlockTrampoline::removeDeallocBlockWithToken(*tracker, token);  // won't run now
//
//   auto trampoline = PXAssociatedTargetBlockTrampoline::trampolineWithInvocationBlock(
//       [](PXObject* sender) { reschedule(); }, {});
//   center->addObserver(trampoline.get(), &PXAssociatedTargetBlockTrampoline::invoke, name);
//
// Thread safety: the callback properties are atomic. The destruction
// callbacks of one object (addDeallocBlock / removeDeallocBlockWithToken) are
// meant to be managed from one thread per object; they run on the thread that
// destroys the object.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXObject.h>
#include <pxkit/objects/PXString.h>

#include <functional>
#include <mutex>

class PXNotification;

// The association key under which an object keeps its destruction callbacks
// (a dictionary from token to trampoline).
PXKIT_EXPORT extern const char* const
    kPXAssociatedTargetBlockTrampolineDict;  // "kPXAssociatedTargetBlockTrampolineDict"

class PXKIT_EXPORT PXAssociatedTargetBlockTrampoline : public PXObject {
  PX_DECLARE_CLASS(PXAssociatedTargetBlockTrampoline)

 public:
  // Called by invoke with the sender (may be null).
  using InvocationBlock = std::function<void(PXObject* sender)>;
  // Called once, when the trampoline is destroyed, with the trampoline itself
  // (already being destroyed: use it for identity only).
  using DeallocBlock = std::function<void(PXAssociatedTargetBlockTrampoline* trampoline)>;
  // Called when the object a destruction callback was added to is destroyed.
  // The object is already being destroyed (its own members are gone): use it
  // for identity only, e.g. to remove it from registries.
  using ObjectDeallocBlock = std::function<void(PXObject* object)>;

  // initWithInvocationBlock:deallocBlock: — either callback may be empty; both are copied.
  explicit PXAssociatedTargetBlockTrampoline(InvocationBlock invocationBlock = {},
                                             DeallocBlock deallocBlock = {});
  // Runs the dealloc callback, if any, with this trampoline, then releases both callbacks.
  ~PXAssociatedTargetBlockTrampoline() override;

  static PXRef<PXAssociatedTargetBlockTrampoline> trampolineWithInvocationBlock(
      InvocationBlock invocationBlock, DeallocBlock deallocBlock);
  static PXRef<PXAssociatedTargetBlockTrampoline> trampolineWithDeallocBlock(DeallocBlock deallocBlock);

  // Atomic properties (copies in, copies out).
  InvocationBlock invocationBlock() const;
  void setInvocationBlock(InvocationBlock block);
  DeallocBlock deallocBlock() const;
  void setDeallocBlock(DeallocBlock block);

  // Calls the invocation callback, if there is one, with `sender`, on the calling thread.
  void invoke(PXObject* sender);
  // The same as a notification centre's target/action.
  void invoke(const PXNotification& notification);

  // ---- Destruction callbacks on any object -------------------------------------
  // Runs `block` with `object` when `object` is destroyed (the object is not
  // retained by this). Returns a token for removeDeallocBlockWithToken, or an
  // absent string when `block` is empty.
  static PXString addDeallocBlock(PXObject& object, ObjectDeallocBlock block);
  // Forgets the destruction callback `token` of `object` without running it.
  // Unknown and absent tokens are ignored.
  static void removeDeallocBlockWithToken(PXObject& object, const PXString& token);

 private:
  mutable std::mutex mutex_;
  InvocationBlock invocationBlock_;
  DeallocBlock deallocBlock_;
};

// Callback trampolines and destruction callbacks.
#include <pxkit/foundation/PXAssociatedTargetBlockTrampoline.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXFormat.h>
#include <pxkit/platform/PXNotificationCenter.h>

#include <utility>

const char* const kPXAssociatedTargetBlockTrampolineDict = "kPXAssociatedTargetBlockTrampolineDict";

PX_DEFINE_CLASS(PXAssociatedTargetBlockTrampoline, PXObject, nullptr)

PXAssociatedTargetBlockTrampoline::PXAssociatedTargetBlockTrampoline(InvocationBlock invocationBlock,
                                                                     DeallocBlock deallocBlock)
    : invocationBlock_(std::move(invocationBlock)), deallocBlock_(std::move(deallocBlock)) {}

PXAssociatedTargetBlockTrampoline::~PXAssociatedTargetBlockTrampoline() {
  DeallocBlock onDealloc;
  InvocationBlock invocation;
  {
    std::lock_guard lock(mutex_);
    onDealloc = std::move(deallocBlock_);
    invocation = std::move(invocationBlock_);
  }
  if (onDealloc) onDealloc(this);
}

PXRef<PXAssociatedTargetBlockTrampoline> PXAssociatedTargetBlockTrampoline::trampolineWithInvocationBlock(
    InvocationBlock invocationBlock, DeallocBlock deallocBlock) {
  return PXMake<PXAssociatedTargetBlockTrampoline>(std::move(invocationBlock), std::move(deallocBlock));
}

PXRef<PXAssociatedTargetBlockTrampoline> PXAssociatedTargetBlockTrampoline::trampolineWithDeallocBlock(
    DeallocBlock deallocBlock) {
  return PXMake<PXAssociatedTargetBlockTrampoline>(InvocationBlock(), std::move(deallocBlock));
}

PXAssociatedTargetBlockTrampoline::InvocationBlock PXAssociatedTargetBlockTrampoline::invocationBlock()
    const {
  std::lock_guard lock(mutex_);
  return invocationBlock_;
}

void PXAssociatedTargetBlockTrampoline::setInvocationBlock(InvocationBlock block) {
  InvocationBlock replaced;  // destroyed after the lock
  std::lock_guard lock(mutex_);
  replaced = std::exchange(invocationBlock_, std::move(block));
}

PXAssociatedTargetBlockTrampoline::DeallocBlock PXAssociatedTargetBlockTrampoline::deallocBlock() const {
  std::lock_guard lock(mutex_);
  return deallocBlock_;
}

void PXAssociatedTargetBlockTrampoline::setDeallocBlock(DeallocBlock block) {
  DeallocBlock replaced;  // destroyed after the lock
  std::lock_guard lock(mutex_);
  replaced = std::exchange(deallocBlock_, std::move(block));
}

void PXAssociatedTargetBlockTrampoline::invoke(PXObject* sender) {
  if (InvocationBlock block = invocationBlock()) block(sender);
}

void PXAssociatedTargetBlockTrampoline::invoke(const PXNotification& notification) {
  invoke(const_cast<PXNotification*>(&notification));
}

// ---- Destruction callbacks --------------------------------------------------------

PXString PXAssociatedTargetBlockTrampoline::addDeallocBlock(PXObject& object, ObjectDeallocBlock block) {
  if (!block) return {};
  PXRef<PXMutableDictionary> callbacks =
      object.associatedObject(kPXAssociatedTargetBlockTrampolineDict).mutableDictionaryValue();
  if (!callbacks) {
    callbacks = PXMutableDictionary::dictionary();
    object.setAssociatedObject(kPXAssociatedTargetBlockTrampolineDict, callbacks,
                               PXAssociationPolicy::Retain);
  }
  // The object is held without a reference: the trampoline dies with it.
  PXObject* owner = &object;
  auto trampoline = trampolineWithDeallocBlock(
      [owner, block = std::move(block)](PXAssociatedTargetBlockTrampoline*) { block(owner); });
  PXString token = PXFormat("%p", static_cast<const void*>(trampoline.get()));
  callbacks->setObject(trampoline, token);
  return token;
}

void PXAssociatedTargetBlockTrampoline::removeDeallocBlockWithToken(PXObject& object, const PXString& token) {
  if (!token) return;
  PXRef<PXMutableDictionary> callbacks =
      object.associatedObject(kPXAssociatedTargetBlockTrampolineDict).mutableDictionaryValue();
  if (!callbacks) return;
  PXValue entry = callbacks->objectForKey(token);
  auto* trampoline = static_cast<PXAssociatedTargetBlockTrampoline*>(entry.objectPointer());
  if (!trampoline) return;
  trampoline->setDeallocBlock({});
  callbacks->removeObjectForKey(token);
  if (callbacks->count() == 0) {
    object.setAssociatedObject(kPXAssociatedTargetBlockTrampolineDict, PXValue(),
                               PXAssociationPolicy::Retain);
  }
}

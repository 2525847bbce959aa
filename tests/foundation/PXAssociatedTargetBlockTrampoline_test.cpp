#include <gtest/gtest.h>
#include <pxkit/foundation/PXAssociatedTargetBlockTrampoline.h>
#include <pxkit/foundation/PXRuntime.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXFormat.h>
#include <pxkit/platform/PXNotificationCenter.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using Trampoline = PXAssociatedTargetBlockTrampoline;

TEST(PXAssociatedTargetBlockTrampoline, CallsBothCallbacksThenReleasesThem) {
  std::vector<PXObject*> senders;
  std::vector<const void*> ran;
  auto captured = std::make_shared<int>(0);
  const void* address = nullptr;
  auto sender = PXMake<PXObject>();
  {
    auto trampoline = Trampoline::trampolineWithInvocationBlock(
        [&senders, captured](PXObject* s) { senders.push_back(s); },
        [&ran, captured](Trampoline* self) { ran.push_back(self); });
    address = trampoline.get();
    EXPECT_EQ(captured.use_count(), 3);
    trampoline->invoke(sender.get());
    trampoline->invoke(static_cast<PXObject*>(nullptr));
    trampoline->setInvocationBlock({});
    trampoline->invoke(sender.get());  // nothing to call
    EXPECT_TRUE(ran.empty());
  }
  EXPECT_EQ(senders, (std::vector<PXObject*>{sender.get(), nullptr}));
  EXPECT_EQ(ran, (std::vector<const void*>{address})) << "the dealloc callback runs once, with itself";
  EXPECT_EQ(captured.use_count(), 1) << "both callbacks are released with the trampoline";

  PXMake<Trampoline>()->invoke(sender.get());  // without any callback at all
  bool cleared = false;
  {
    auto trampoline = Trampoline::trampolineWithDeallocBlock([&](Trampoline*) { cleared = true; });
    ASSERT_TRUE(trampoline->deallocBlock());
    trampoline->setDeallocBlock({});
  }
  EXPECT_FALSE(cleared) << "a cleared dealloc callback does not run";
}

PXRef<PXDictionary> deallocDictionary(const PXObject& object) {
  return PXRuntime::getAssociatedObjectForKey(object, kPXAssociatedTargetBlockTrampolineDict)
      .dictionaryValue();
}

TEST(PXAssociatedTargetBlockTrampoline, DestructionCallbacksRunAtDestructionUnlessRemoved) {
  std::vector<std::string> ran;
  auto object = PXMake<PXObject>();
  const void* address = object.get();
  // The object's dictionary comes with the first callback and goes with the last.
  EXPECT_TRUE(Trampoline::addDeallocBlock(*object, nullptr).isAbsent()) << "no callback, no token";
  EXPECT_FALSE(deallocDictionary(*object));
  PXString only = Trampoline::addDeallocBlock(*object, [&](PXObject*) { ran.push_back("only"); });
  EXPECT_TRUE(deallocDictionary(*object));
  Trampoline::removeDeallocBlockWithToken(*object, only);
  EXPECT_FALSE(deallocDictionary(*object));

  PXString first = Trampoline::addDeallocBlock(*object, [&](PXObject* gone) {
    ran.push_back(PXFormat("first %p", static_cast<const void*>(gone)).str());
  });
  PXString removed = Trampoline::addDeallocBlock(*object, [&](PXObject*) { ran.push_back("removed"); });
  PXString third = Trampoline::addDeallocBlock(*object, [&](PXObject*) { ran.push_back("third"); });
  ASSERT_TRUE(first);
  EXPECT_NE(first, removed);

  // The token is the trampoline's address, and keys the object's dictionary.
  PXRef<PXDictionary> callbacks = deallocDictionary(*object);
  ASSERT_TRUE(callbacks);
  EXPECT_EQ(callbacks->count(), 3u);
  EXPECT_EQ(PXFormat("%p", static_cast<const void*>(callbacks->objectForKey(first).objectPointer())), first);
  callbacks = nullptr;

  Trampoline::removeDeallocBlockWithToken(*object, removed);
  Trampoline::removeDeallocBlockWithToken(*object, removed);     // no longer there: ignored
  Trampoline::removeDeallocBlockWithToken(*object, "0x1234");    // unknown: ignored
  Trampoline::removeDeallocBlockWithToken(*object, PXString());  // absent: ignored
  EXPECT_EQ(deallocDictionary(*object)->count(), 2u);
  EXPECT_TRUE(ran.empty()) << "removal must not run the callback";

  object = nullptr;
  ASSERT_EQ(ran.size(), 2u);
  EXPECT_EQ(ran[0], PXFormat("first %p", address).str());
  EXPECT_EQ(ran[1], "third");
}

}  // namespace

#include <gtest/gtest.h>
#include <pxkit/foundation/PXAssociatedTargetBlockTrampoline.h>
#include <pxkit/foundation/PXRuntime.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXFormat.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using Trampoline = PXAssociatedTargetBlockTrampoline;

TEST(PXAssociatedTargetBlockTrampoline, CallsItsCallbackUntilClearedAndReleasesBoth) {
  std::vector<PXObject*> senders;
  auto captured = std::make_shared<int>(0);
  auto sender = PXMake<PXObject>();
  auto trampoline = Trampoline::trampolineWithInvocationBlock(
      [&senders, captured](PXObject* s) { senders.push_back(s); }, [captured](Trampoline*) {});
  trampoline->invoke(sender.get());
  trampoline->setInvocationBlock({});
  trampoline->invoke(sender.get());  // nothing to call
  trampoline = nullptr;
  EXPECT_EQ(senders, std::vector<PXObject*>{sender.get()});
  EXPECT_EQ(captured.use_count(), 1) << "both callbacks are released with the trampoline";
  PXMake<Trampoline>()->invoke(sender.get());  // without any callback at all
}

TEST(PXAssociatedTargetBlockTrampoline, DestructionCallbacksRunAtDestructionUnlessRemoved) {
  std::vector<std::string> ran;
  auto object = PXMake<PXObject>();
  const void* address = object.get();
  auto callbacks = [&] {
    return PXRuntime::getAssociatedObjectForKey(*object, kPXAssociatedTargetBlockTrampolineDict)
        .dictionaryValue();
  };
  EXPECT_TRUE(Trampoline::addDeallocBlock(*object, nullptr).isAbsent()) << "no callback, no token";
  Trampoline::removeDeallocBlockWithToken(*object, "0x1234");  // no callbacks at all: ignored
  // The object's dictionary comes with the first callback and goes with the last.
  EXPECT_FALSE(callbacks());
  PXString only = Trampoline::addDeallocBlock(*object, [&](PXObject*) { ran.push_back("only"); });
  EXPECT_TRUE(callbacks());
  Trampoline::removeDeallocBlockWithToken(*object, only);
  EXPECT_FALSE(callbacks());
  PXString first = Trampoline::addDeallocBlock(*object, [&](PXObject* gone) {
    ran.push_back(PXFormat("first %p", static_cast<const void*>(gone)).str());
  });
  PXString removed = Trampoline::addDeallocBlock(*object, [&](PXObject*) { ran.push_back("removed"); });
  Trampoline::addDeallocBlock(*object, [&](PXObject*) { ran.push_back("third"); });
  // The token is the trampoline's address, and keys the object's dictionary.
  ASSERT_EQ(callbacks()->count(), 3u);
  EXPECT_EQ(PXFormat("%p", static_cast<const void*>(callbacks()->objectForKey(first).objectPointer())),
            first);
  for (const PXString& token : {removed, removed, PXString("0x1234"), PXString()})
    Trampoline::removeDeallocBlockWithToken(*object, token);  // once there, then unknown or absent: ignored
  EXPECT_EQ(callbacks()->count(), 2u);
  EXPECT_TRUE(ran.empty()) << "removal must not run the callback";
  object = nullptr;
  EXPECT_EQ(ran, (std::vector<std::string>{PXFormat("first %p", address).str(), "third"}));
}

}  // namespace

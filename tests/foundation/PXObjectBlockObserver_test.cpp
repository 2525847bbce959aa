#include <gtest/gtest.h>
#include <pxkit/foundation/PXObjectBlockObserver.h>
#include <pxkit/foundation/PXRuntime.h>
#include <pxkit/objects/PXFormat.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/PXLogCapture.h"

namespace {

class BOModel : public PXObject {
  PX_DECLARE_CLASS(BOModel)
 public:
  // Safe to read and write from any thread.
  int64_t level() const { return level_.load(); }
  void setLevel(int64_t v) {
    willChangeValueForKey("level");
    level_.store(v);
    didChangeValueForKey("level");
  }
  PXRef<BOModel> part() const {
    std::lock_guard lock(monitor());
    return part_;
  }
  void setPart(PXRef<BOModel> p) {
    willChangeValueForKey("part");
    {
      std::lock_guard lock(monitor());
      part_ = std::move(p);
    }
    didChangeValueForKey("part");
  }
  void setName(PXString n) { setObservable(name, std::move(n), "name"); }
  PXString name;

 private:
  std::atomic<int64_t> level_{0};
  PXRef<BOModel> part_;
};

}  // namespace

PX_DEFINE_CLASS(BOModel, PXObject, [](PXClassBuilder<BOModel>& c) {
  c.computed("level", &BOModel::level, &BOModel::setLevel);
  c.computed("part", &BOModel::part, &BOModel::setPart);
  c.property("name", &BOModel::name);
})

namespace {

namespace Observer = PXObjectBlockObserver;
using Token = PXRef<PXObjectBlockObserverTrampoline>;

// Every call of one callback, as text.
struct Calls {
  std::vector<std::string> lines;
  PXObjectBlockObserverBlock block() {
    return [this](PXObject* observed, const PXString& keyPath, const PXDictionary& change, PXObject* owner) {
      std::string line =
          keyPath.str() + " " +
          PXFormat("%p %p", static_cast<const void*>(observed), static_cast<const void*>(owner)).str();
      for (const char* key : {"new", "old", "notificationIsPrior"}) {
        if (PXValue v = change.objectForKey(key))
          line += std::string(" ") + key + "=" + v.description().str();
      }
      lines.push_back(line);
    };
  }
};

std::string expected(const char* keyPath, const PXObject* observed, const PXObject* owner, const char* rest) {
  return PXFormat("%s %p %p%s", keyPath, static_cast<const void*>(observed), static_cast<const void*>(owner),
                  rest)
      .str();
}

bool hasObservationArray(const PXObject& object) {
  return static_cast<bool>(PXRuntime::getAssociatedObjectForKey(object, kPXObjectBlockObserverArrayKey));
}

TEST(PXObjectBlockObserver, CallbackHearsChangesUntilRemovedAndASecondRemovalIsLogged) {
  auto model = PXMake<BOModel>();
  auto owner = PXMake<PXObject>();
  Calls removed, kept;
  Token token = Observer::addObserverForKeyPath(
      *model, "level",
      PXKeyValueObservingOptionNew | PXKeyValueObservingOptionOld | PXKeyValueObservingOptionInitial,
      owner.get(), removed.block());
  ASSERT_TRUE(token);
  EXPECT_TRUE(token->isObserving());
  EXPECT_EQ(token->keyPath(), "level");
  EXPECT_EQ(token->owner(), owner.get());
  EXPECT_EQ(token->observedObject().get(), model.get());
  ASSERT_EQ(removed.lines.size(), 1u) << "the initial call comes before the token is handed out";
  Observer::addObserverForKeyPath(*model, "level", 0, nullptr, kept.block());
  model->setLevel(5);
  EXPECT_EQ(removed.lines,
            (std::vector<std::string>{expected("level", model.get(), owner.get(), " new=0"),
                                      expected("level", model.get(), owner.get(), " new=5 old=0")}));

  PXLogCapture log;
  Observer::removeObserverWithObserverBlockToken(*model, token);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_FALSE(token->isObserving());
  model->setLevel(1);
  EXPECT_EQ(removed.lines.size(), 2u);
  EXPECT_EQ(kept.lines.size(), 2u);

  Observer::removeObserverWithObserverBlockToken(*model, token);
  EXPECT_EQ(log.lines(),
            (std::vector<std::string>{
                PXFormat("removeObserverWithObserverBlockToken: attempt to remove non-existing "
                         "%p from <BOModel: %p>",
                         static_cast<const void*>(token.get()), static_cast<const void*>(model.get()))
                    .str()}));
  model->setLevel(2);
  EXPECT_EQ(kept.lines.size(), 3u) << "a failed removal changes nothing";

  // A token of another object is not this object's either.
  auto other = PXMake<BOModel>();
  Token foreign = Observer::addObserverForKeyPath(*other, "level", 0, nullptr, kept.block());
  Observer::removeObserverWithObserverBlockToken(*model, foreign);
  EXPECT_EQ(log.lines().size(), 2u);
  EXPECT_TRUE(foreign->isObserving());
}

TEST(PXObjectBlockObserver, TrampolineGuardsAndSelfStopOnDestruction) {
  auto model = PXMake<BOModel>();
  Calls calls;
  auto trampoline = PXMake<PXObjectBlockObserverTrampoline>(*model, "level", 0, nullptr, calls.block());
  EXPECT_FALSE(trampoline->isObserving());
  trampoline->addObserverBlock();
  trampoline->addObserverBlock();  // once per cycle
  model->setLevel(1);
  EXPECT_EQ(calls.lines.size(), 1u);

  trampoline->removeObserverBlock();
  trampoline->removeObserverBlock();
  model->setLevel(2);
  EXPECT_EQ(calls.lines.size(), 1u);

  // A new cycle observes the key path as it is now.
  trampoline->setKeyPath("name");
  trampoline->addObserverBlock();
  model->setLevel(3);
  model->setName("n");
  EXPECT_EQ(calls.lines.size(), 2u);
  EXPECT_EQ(calls.lines.back().substr(0, 5), "name ");

  trampoline = nullptr;  // stops itself
}

TEST(PXObjectBlockObserver, CallbackMayRemoveItsOwnObservation) {
  auto model = PXMake<BOModel>();
  int calls = 0;
  Token token;
  token = Observer::addObserverForKeyPath(
      *model, "level", 0, nullptr, [&](PXObject* observed, const PXString&, const PXDictionary&, PXObject*) {
        ++calls;
        Observer::removeObserverWithObserverBlockToken(*observed, token);
      });
  model->setLevel(1);
  model->setLevel(2);
  EXPECT_EQ(calls, 1);
  EXPECT_FALSE(hasObservationArray(*model));
}

// Eight threads add and remove block observers (by token and by owner) while
// two others keep changing the observed values and replacing the part on the
// observed path.
TEST(PXObjectBlockObserver, StressAddRemoveWhileChanging) {
  auto model = PXMake<BOModel>();
  model->setPart(PXMake<BOModel>());
  std::atomic<bool> stop{false};
  std::atomic<long> delivered{0};
  constexpr int kAdders = 8;
  constexpr int kRounds = 150;

  std::vector<std::thread> changers;
  changers.emplace_back([&] {
    for (int i = 0; !stop.load(); ++i) model->setLevel(i);
  });
  changers.emplace_back([&] {
    for (int i = 0; !stop.load(); ++i) {
      if (i % 16 == 0) {
        model->setPart(PXMake<BOModel>());
      } else if (PXRef<BOModel> part = model->part()) {
        part->setLevel(i);
      }
    }
  });

  std::vector<std::thread> adders;
  for (int t = 0; t < kAdders; ++t) {
    adders.emplace_back([&] {
      auto owner = PXMake<PXObject>();
      for (int i = 0; i < kRounds; ++i) {
        const char* path = (i % 2) ? "level" : "part.level";
        auto seen = std::make_shared<std::atomic<int>>(0);
        auto block = [seen, &delivered](PXObject*, const PXString&, const PXDictionary&, PXObject*) {
          seen->fetch_add(1);
          delivered.fetch_add(1);
        };
        Token token = Observer::addObserverForKeyPath(
            *model, path, PXKeyValueObservingOptionNew | PXKeyValueObservingOptionOld, owner.get(), block);
        Observer::addObserverForKeyPath(*model, path, PXKeyValueObservingOptionPrior, owner.get(), block);
        // A change made on this thread reaches this thread's observations at once.
        if (i % 2) {
          model->setLevel(-i);
        } else {
          model->setPart(PXMake<BOModel>());
        }
        EXPECT_GE(seen->load(), 3) << "both observations, one of them with its prior call";
        Observer::removeObserverWithObserverBlockToken(*model, token);
        if (i % 3 == 0) Observer::removeObjectBlockObserversWithOwner(*model, owner.get(), path);
        if (i % 5 == 0) Observer::removeObjectBlockObserversWithOwner(*model, owner.get());
      }
      Observer::removeObjectBlockObserversWithOwner(*model, owner.get());
    });
  }
  for (auto& thread : adders) thread.join();
  stop.store(true);
  for (auto& thread : changers) thread.join();

  // Every observation is gone: no array, no hooks, and no callback runs any more.
  EXPECT_FALSE(hasObservationArray(*model));
  long before = delivered.load();
  model->setLevel(-1);
  model->part()->setLevel(-1);
  model->setPart(PXMake<BOModel>());
  EXPECT_EQ(delivered.load(), before);
}

}  // namespace

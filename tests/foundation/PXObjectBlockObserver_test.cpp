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

 private:
  std::atomic<int64_t> level_{0};
  PXRef<BOModel> part_;
};

}  // namespace

PX_DEFINE_CLASS(BOModel, PXObject, [](PXClassBuilder<BOModel>& c) {
  c.computed("level", &BOModel::level, &BOModel::setLevel);
  c.computed("part", &BOModel::part, &BOModel::setPart);
})

namespace {

namespace Observer = PXObjectBlockObserver;
using Token = PXRef<PXObjectBlockObserverTrampoline>;

// Every call of one callback, as text: key path, observed object, owner, change.
struct Calls {
  std::vector<std::string> lines;
  PXObjectBlockObserverBlock block() {
    return [this](PXObject* observed, const PXString& keyPath, const PXDictionary& change, PXObject* owner) {
      lines.push_back(PXFormat("%@ %p %p %@ %@", keyPath, static_cast<const void*>(observed),
                               static_cast<const void*>(owner), change.objectForKey("new"),
                               change.objectForKey("old"))
                          .str());
    };
  }
};

bool hasObservationArray(const PXObject& object) {
  return static_cast<bool>(PXRuntime::getAssociatedObjectForKey(object, kPXObjectBlockObserverArrayKey));
}

TEST(PXObjectBlockObserver, CallbackHearsChangesUntilRemovedAndAFailedRemovalIsLogged) {
  auto model = PXMake<BOModel>(), other = PXMake<BOModel>(), unobserved = PXMake<BOModel>();
  auto owner = PXMake<PXObject>();
  Calls removed, kept;
  const unsigned options =
      PXKeyValueObservingOptionNew | PXKeyValueObservingOptionOld | PXKeyValueObservingOptionInitial;
  Token token = Observer::addObserverForKeyPath(*model, "level", options, owner.get(), removed.block());
  Observer::addObserverForKeyPath(*model, "level", 0, nullptr, kept.block());
  model->setLevel(5);
  const std::string prefix = PXFormat("level %p %p", model.get(), owner.get()).str();
  EXPECT_EQ(removed.lines, (std::vector<std::string>{prefix + " 0 (null)", prefix + " 5 0"}));
  PXLogCapture log;
  Observer::removeObserverWithObserverBlockToken(*model, token);
  EXPECT_FALSE(token->isObserving());
  model->setLevel(1);
  EXPECT_EQ(removed.lines.size() + kept.lines.size(), 4u);
  // Removed already, of another object, none at all, from an object without observations.
  Token foreign = Observer::addObserverForKeyPath(*other, "level", 0, nullptr, kept.block());
  for (const auto& [object, which] : {std::pair{model.get(), token},
                                      {model.get(), foreign},
                                      {model.get(), Token()},
                                      {unobserved.get(), token}}) {
    Observer::removeObserverWithObserverBlockToken(*object, which);
    EXPECT_EQ(log.lines().back(),
              PXFormat("removeObserverWithObserverBlockToken: attempt to remove non-existing "
                       "%p from <BOModel: %p>",
                       which.get(), object)
                  .str());
  }
  model->setLevel(2);
  EXPECT_EQ(kept.lines.size(), 3u) << "a failed removal changes nothing";
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

// Threads add and remove observers while another changes the values and the part on the path.
TEST(PXObjectBlockObserver, StressAddRemoveWhileChanging) {
  auto model = PXMake<BOModel>();
  model->setPart(PXMake<BOModel>());
  std::atomic<bool> stop{false};
  std::atomic<long> delivered{0};
  std::thread changer([&] {
    for (int i = 0; !stop.load(); ++i) {
      model->setLevel(i);
      if (i % 16 == 0) model->setPart(PXMake<BOModel>());
      if (PXRef<BOModel> part = model->part()) part->setLevel(i);
    }
  });
  std::vector<std::thread> adders;
  for (int t = 0; t < 8; ++t) {
    adders.emplace_back([&] {
      auto owner = PXMake<PXObject>();
      for (int i = 0; i < 150; ++i) {
        const char* path = (i % 2) ? "level" : "part.level";
        auto seen = std::make_shared<std::atomic<int>>(0);
        auto block = [seen, &delivered](PXObject*, const PXString&, const PXDictionary&, PXObject*) {
          seen->fetch_add(1);
          delivered.fetch_add(1);
        };
        Token token =
            Observer::addObserverForKeyPath(*model, path, PXKeyValueObservingOptionNew, owner.get(), block);
        Observer::addObserverForKeyPath(*model, path, PXKeyValueObservingOptionPrior, owner.get(), block);
        (i % 2) ? model->setLevel(-i) : model->setPart(PXMake<BOModel>());
        EXPECT_GE(seen->load(), 3) << "both observations, one of them with its prior call";
        Observer::removeObserverWithObserverBlockToken(*model, token);
        if (i % 3 == 0) Observer::removeObjectBlockObserversWithOwner(*model, owner.get(), path);
      }
      Observer::removeObjectBlockObserversWithOwner(*model, owner.get());
    });
  }
  for (auto& thread : adders) thread.join();
  stop.store(true);
  changer.join();
  // No array, no hooks: no callback runs any more.
  EXPECT_FALSE(hasObservationArray(*model));
  const long before = delivered.load();
  model->part()->setLevel(-1);
  model->setPart(PXMake<BOModel>());
  EXPECT_EQ(delivered.load(), before);
}

}  // namespace

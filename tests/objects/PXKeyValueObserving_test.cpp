#include <gtest/gtest.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXException.h>
#include <pxkit/objects/PXObject.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

class KVONode : public PXObject {
  PX_DECLARE_CLASS(KVONode)
 public:
  explicit KVONode(int32_t v = 0, PXRef<KVONode> n = {}) : value(v), next(std::move(n)) {}
  void setValue(int32_t v) { setObservable(value, v, "value"); }
  void setNext(PXRef<KVONode> n) { setObservable(next, std::move(n), "next"); }
  void setName(PXString n) { setObservable(name, std::move(n), "name"); }
  // Safe to read and write from several threads at once.
  int64_t counter() const { return counter_.load(); }
  void setCounter(int64_t v) {
    willChangeValueForKey("counter");
    counter_.store(v);
    didChangeValueForKey("counter");
  }

  // Like `next`, but safe to read and write from several threads at once.
  PXRef<KVONode> link() const {
    std::lock_guard lock(monitor());
    return link_;
  }
  void setLink(PXRef<KVONode> n) {
    willChangeValueForKey("link");
    {
      std::lock_guard lock(monitor());
      link_ = std::move(n);
    }
    didChangeValueForKey("link");
  }

  int32_t value = 0;
  PXRef<KVONode> next;
  PXString name;

 private:
  std::atomic<int64_t> counter_{0};
  PXRef<KVONode> link_;
};

}  // namespace

PX_DEFINE_CLASS(KVONode, PXObject, [](PXClassBuilder<KVONode>& c) {
  c.property("value", &KVONode::value);
  c.property("next", &KVONode::next);
  c.property("name", &KVONode::name);
  c.computed("counter", &KVONode::counter, &KVONode::setCounter);
  c.computed("link", &KVONode::link, &KVONode::setLink);
})

namespace {

// "kind=1 new=2 old=1 prior=1", whatever order the dictionary keeps.
std::string describe(const PXDictionary& change) {
  std::string text;
  auto add = [&](const char* label, const char* key) {
    PXValue v = change.objectForKey(key);
    if (!v) return;
    if (!text.empty()) text += ' ';
    text += label;
    text += '=';
    text += v.description().str();
  };
  add("kind", "kind");
  add("new", "new");
  add("old", "old");
  add("prior", "notificationIsPrior");
  if (change.count() != static_cast<size_t>(std::count(text.begin(), text.end(), '=')))
    text += " +extra keys";
  return text;
}

class Recorder : public PXObject {
 public:
  struct Seen {
    std::string keyPath;
    PXObject* object = nullptr;
    std::string change;
    void* context = nullptr;
  };
  std::vector<Seen> seen;
  std::function<void(const Seen&)> onNotify;

  std::vector<std::string> changes() const {
    std::vector<std::string> out;
    for (const Seen& s : seen) out.push_back(s.change);
    return out;
  }
  void observeValueForKeyPath(const PXString& keyPath, PXObject* object, const PXDictionary& change,
                              void* context) override {
    Seen s{keyPath.str(), object, describe(change), context};
    seen.push_back(s);
    if (onNotify) onNotify(s);
  }
};

using Changes = std::vector<std::string>;

TEST(PXKeyValueObserving, OptionsShapeTheChangeDictionaries) {
  struct Row {
    const char* name;
    unsigned options;
    Changes expected;
    const char* keyPath = "value";
  } rows[] = {
      {"none", 0, {"kind=1"}},
      {"new", PXKeyValueObservingOptionNew, {"kind=1 new=2"}},
      {"old", PXKeyValueObservingOptionOld, {"kind=1 old=1"}},
      {"new+old", PXKeyValueObservingOptionNew | PXKeyValueObservingOptionOld, {"kind=1 new=2 old=1"}},
      {"initial", PXKeyValueObservingOptionInitial, {"kind=1", "kind=1"}},
      {"initial+new+old",
       PXKeyValueObservingOptionInitial | PXKeyValueObservingOptionNew | PXKeyValueObservingOptionOld,
       {"kind=1 new=1", "kind=1 new=2 old=1"}},
      {"prior", PXKeyValueObservingOptionPrior, {"kind=1 prior=1", "kind=1"}},
      {"prior+new+old",
       PXKeyValueObservingOptionPrior | PXKeyValueObservingOptionNew | PXKeyValueObservingOptionOld,
       {"kind=1 old=1 prior=1", "kind=1 new=2 old=1"}},
      {"an unknown key on the path reads as null",
       PXKeyValueObservingOptionInitial | PXKeyValueObservingOptionNew,
       {"kind=1 new=<null>"},
       "nothing.value"},
  };
  int context = 0;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    auto node = PXMake<KVONode>(1);
    auto recorder = PXMake<Recorder>();
    node->addObserver(recorder.get(), row.keyPath, row.options, &context);
    node->setValueForKey(2, "value");  // key-value coding announces the change too
    EXPECT_EQ(recorder->changes(), row.expected);
    for (const auto& s : recorder->seen) {
      EXPECT_EQ(s.keyPath, row.keyPath);
      EXPECT_EQ(s.object, node.get());
      EXPECT_EQ(s.context, &context);
    }
    node->removeObserver(recorder.get(), row.keyPath, &context);
    node->setValue(3);
    EXPECT_EQ(recorder->seen.size(), row.expected.size()) << "told after removal";
  }
}

// root.next = a, a.next = b, b.value: "next.next.value" follows every step.
TEST(PXKeyValueObserving, ThreeStepKeyPathFollowsReplacedIntermediates) {
  auto b = PXMake<KVONode>(1);
  auto a = PXMake<KVONode>(0, b);
  auto root = PXMake<KVONode>(0, a);
  auto recorder = PXMake<Recorder>();
  root->addObserver(recorder.get(), "next.next.value",
                    PXKeyValueObservingOptionNew | PXKeyValueObservingOptionOld, nullptr);

  // The last step.
  b->setValue(2);
  EXPECT_EQ(recorder->changes(), (Changes{"kind=1 new=2 old=1"}));
  EXPECT_EQ(recorder->seen.back().keyPath, "next.next.value");
  EXPECT_EQ(recorder->seen.back().object, root.get());

  // The middle step: old and new are the whole path's values.
  PXWeakRef<KVONode> oldB = b;
  auto b2 = PXMake<KVONode>(10);
  a->setNext(b2);
  b = nullptr;
  EXPECT_TRUE(oldB.expired()) << "observing must not keep the replaced object alive";
  b2->setValue(11);
  EXPECT_EQ(recorder->changes(),
            (Changes{"kind=1 new=2 old=1", "kind=1 new=10 old=2", "kind=1 new=11 old=10"}));

  // The first step: the old branch is no longer heard, the new one is.
  auto b3 = PXMake<KVONode>(20);
  auto a2 = PXMake<KVONode>(0, b3);
  root->setNext(a2);
  EXPECT_EQ(recorder->seen.back().change, "kind=1 new=20 old=11");
  size_t told = recorder->seen.size();
  a->setNext(PXMake<KVONode>(99));
  b2->setValue(12);
  EXPECT_EQ(recorder->seen.size(), told) << "changes of the replaced branch must not be reported";
  b3->setValue(21);
  EXPECT_EQ(recorder->seen.back().change, "kind=1 new=21 old=20");

  // A gap in the path reads as null; filling it is heard and followed.
  root->setNext(nullptr);
  EXPECT_EQ(recorder->seen.back().change, "kind=1 new=<null> old=21");
  root->setNext(PXMake<KVONode>(0, PXMake<KVONode>(30)));
  EXPECT_EQ(recorder->seen.back().change, "kind=1 new=30 old=<null>");
  PXRef<KVONode> middle = root->next, tail = middle->next;
  tail->setValue(31);
  EXPECT_EQ(recorder->seen.back().change, "kind=1 new=31 old=30");

  // A destroyed root unhooks its whole path.
  told = recorder->seen.size();
  root = nullptr;
  tail->setValue(32);
  middle->setNext(nullptr);
  EXPECT_EQ(recorder->seen.size(), told);
}

TEST(PXKeyValueObserving, NestedChangesOfOneKeyNotifyOnceWithOutermostOldValue) {
  auto node = PXMake<KVONode>(1);
  auto recorder = PXMake<Recorder>();
  node->addObserver(
      recorder.get(), "value",
      PXKeyValueObservingOptionNew | PXKeyValueObservingOptionOld | PXKeyValueObservingOptionPrior, nullptr);
  node->willChangeValueForKey("value");
  node->value = 5;
  node->setValue(6);  // a nested will/did pair
  node->willChangeValueForKey("name");
  node->didChangeValueForKey("name");
  EXPECT_EQ(recorder->changes(), (Changes{"kind=1 old=1 prior=1"}));
  node->didChangeValueForKey("value");
  EXPECT_EQ(recorder->changes(), (Changes{"kind=1 old=1 prior=1", "kind=1 new=6 old=1"}));
  // Balanced again: the next change is a change of its own.
  node->setValue(7);
  EXPECT_EQ(recorder->seen.back().change, "kind=1 new=7 old=6");
  // A did without a will is ignored.
  node->didChangeValueForKey("value");
  EXPECT_EQ(recorder->seen.size(), 4u);
}

TEST(PXKeyValueObserving, ObserversRemovedOrAddedWhileNotifying) {
  auto node = PXMake<KVONode>();
  auto first = PXMake<Recorder>();
  auto second = PXMake<Recorder>();
  auto late = PXMake<Recorder>();
  node->addObserver(first.get(), "value", 0, nullptr);
  node->addObserver(second.get(), "value", 0, nullptr);
  first->onNotify = [&](const Recorder::Seen&) {
    node->removeObserver(second.get(), "value");
    node->removeObserver(first.get(), "value");  // itself
    node->addObserver(late.get(), "value", 0, nullptr);
  };
  node->setValue(1);
  EXPECT_EQ(first->seen.size(), 1u);
  EXPECT_EQ(second->seen.size(), 0u) << "removed before its turn";
  EXPECT_EQ(late->seen.size(), 0u) << "added after the change began";
  node->setValue(2);
  EXPECT_EQ(first->seen.size(), 1u);
  EXPECT_EQ(late->seen.size(), 1u);
}

TEST(PXKeyValueObserving, RemovalMatchesObserverKeyPathAndContext) {
  auto node = PXMake<KVONode>();
  auto recorder = PXMake<Recorder>();
  auto other = PXMake<Recorder>();
  int one = 0, two = 0;
  node->addObserver(recorder.get(), "value", 0, &one);
  node->addObserver(recorder.get(), "value", 0, &two);
  node->addObserver(recorder.get(), "name", 0, &one);
  node->addObserver(other.get(), "value", 0, &one);

  node->removeObserver(recorder.get(), "value", &one);
  node->removeObserver(recorder.get(), "value", &one);  // not registered any more: nothing
  node->removeObserver(recorder.get(), "missing");      // never registered: nothing
  node->setValue(1);
  ASSERT_EQ(recorder->seen.size(), 1u);
  EXPECT_EQ(recorder->seen[0].context, &two);
  EXPECT_EQ(other->seen.size(), 1u);

  node->removeObserver(recorder.get(), "value");  // any context
  node->setValue(2);
  node->setName("n");
  ASSERT_EQ(recorder->seen.size(), 2u);
  EXPECT_EQ(recorder->seen[1].keyPath, "name");
  EXPECT_EQ(other->seen.size(), 2u);
}

TEST(PXKeyValueObserving, ThrowingPriorObserverDoesNotWedgeTheKey) {
  auto node = PXMake<KVONode>();
  auto recorder = PXMake<Recorder>();
  node->addObserver(recorder.get(), "value", PXKeyValueObservingOptionPrior, nullptr);
  recorder->onNotify = [](const Recorder::Seen&) { throw PXException("Test", "refused"); };
  EXPECT_THROW(node->setValue(1), PXException);
  recorder->onNotify = nullptr;
  node->setValue(2);
  EXPECT_EQ(recorder->changes(), (Changes{"kind=1 prior=1", "kind=1 prior=1", "kind=1"}));
}

// Registrations come and go on some threads while others change the value.
TEST(PXKeyValueObserving, ConcurrentRegistrationAndChanges) {
  class Counter : public PXObject {
   public:
    std::atomic<int> calls{0};
    void observeValueForKeyPath(const PXString&, PXObject*, const PXDictionary& change, void*) override {
      if (change.objectForKey("kind").intValue() == 1) calls.fetch_add(1);
    }
  };
  auto root = PXMake<KVONode>();
  root->setLink(PXMake<KVONode>());
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 300; ++i) {
        auto counter = PXMake<Counter>();
        root->addObserver(counter.get(), "link.counter",
                          PXKeyValueObservingOptionNew | PXKeyValueObservingOptionOld, nullptr);
        if (i % 3 == 0) continue;  // dropped without removal: must simply never be called again
        root->removeObserver(counter.get(), "link.counter");
      }
    });
  }
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; !stop.load(); ++i) {
        if (t == 0 && i % 50 == 0) {
          root->setLink(PXMake<KVONode>());
        } else if (PXRef<KVONode> link = root->link()) {
          link->setCounter(i);
        }
      }
    });
  }
  for (int t = 0; t < 3; ++t) threads[t].join();
  stop.store(true);
  for (size_t t = 3; t < threads.size(); ++t) threads[t].join();

  // Registrations whose observers are gone are pruned when the next one is
  // added; the newcomer hears exactly its own changes.
  auto counter = PXMake<Counter>();
  root->addObserver(counter.get(), "link.counter", 0, nullptr);
  root->setLink(PXMake<KVONode>());
  root->link()->setCounter(1);
  EXPECT_EQ(counter->calls.load(), 2);
}

}  // namespace

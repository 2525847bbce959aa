#include <gtest/gtest.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXException.h>
#include <pxkit/objects/PXObject.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

class KVONode : public PXObject {
  PX_DECLARE_CLASS(KVONode)
 public:
  explicit KVONode(int32_t v = 0) : value(v) {}
  // A getter that raises an exception of the kit other than an undefined key.
  PXValue valueForKey(std::string_view key) const override {
    if (key == "raising") throw PXException("KVONodeException", "unreadable");
    return PXObject::valueForKey(key);
  }
  void setValue(int32_t v) { setObservable(value, v, "value"); }
  // `counter` and `link` are safe to read and write from several threads at once.
  int64_t counter() const { return counter_.load(); }
  void setCounter(int64_t v) {
    willChangeValueForKey("counter");
    counter_.store(v);
    didChangeValueForKey("counter");
  }
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

 private:
  std::atomic<int64_t> counter_{0};
  PXRef<KVONode> link_;
};

}  // namespace

PX_DEFINE_CLASS(KVONode, PXObject, [](PXClassBuilder<KVONode>& c) {
  c.property("value", &KVONode::value);
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

// Each change described, and whether every call named the key path, object and context expected.
class Recorder : public PXObject {
 public:
  std::vector<std::string> changes;
  std::string keyPath;
  const PXObject* object = nullptr;
  void* context = nullptr;
  bool allAsExpected = true;
  void observeValueForKeyPath(const PXString& path, PXObject* from, const PXDictionary& change,
                              void* ctx) override {
    changes.push_back(describe(change));
    allAsExpected = allAsExpected && path.view() == keyPath && from == object && ctx == context;
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
      // Observing never raises on behalf of the setter: an unreadable value reads as null.
      {"a raising getter",
       PXKeyValueObservingOptionInitial | PXKeyValueObservingOptionNew,
       {"kind=1 new=<null>"},
       "raising"},
      {"a raising getter on the path",
       PXKeyValueObservingOptionInitial | PXKeyValueObservingOptionNew,
       {"kind=1 new=<null>"},
       "raising.value"},
  };
  int context = 0;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    auto node = PXMake<KVONode>(1);
    auto recorder = PXMake<Recorder>();
    recorder->keyPath = row.keyPath, recorder->object = node.get(), recorder->context = &context;
    node->addObserver(recorder.get(), row.keyPath, row.options, &context);
    node->setValueForKey(2, "value");  // key-value coding announces the change too
    EXPECT_EQ(recorder->changes, row.expected);
    EXPECT_TRUE(recorder->allAsExpected);
    node->removeObserver(recorder.get(), row.keyPath, &context);
    node->setValue(3);
    EXPECT_EQ(recorder->changes.size(), row.expected.size()) << "told after removal";
  }
}

// Registrations come and go on some threads while others change the value.
TEST(PXKeyValueObserving, ConcurrentRegistrationAndChanges) {
  class Counter : public PXObject {
   public:
    std::atomic<int> calls{0};
    void observeValueForKeyPath(const PXString&, PXObject*, const PXDictionary&, void*) override {
      calls.fetch_add(1);
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
        if (i % 3 != 0) root->removeObserver(counter.get(), "link.counter");  // else dropped unremoved
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
